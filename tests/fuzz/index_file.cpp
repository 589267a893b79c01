#include <xxhash.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz/target.h"
#include "storage/persistent_allocator.h"

// The first byte says what lies beside the file: nothing (0), its used part as a compaction saves it
// (1), or that part with a digest that fits whatever the damage made of it (2). The second chooses
// the sizes that are asked for. Then the damage. File 0 is the index file, file 1 the saved part.
namespace korvex::fuzz {
namespace {

constexpr unsigned file_bytes = 20'000;
constexpr long long ids[] = {1, 10, 11, 12, 1025, 1034, 77, -2, 0};

void append_digest(std::string* bytes) {
  const XXH64_hash_t digest = XXH64(bytes->data(), bytes->size(), 0);
  bytes->append(reinterpret_cast<const char*>(&digest), sizeof digest);
}

void write_whole(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Several buckets, two chains of two, a block that was replaced by a larger one.
void build(const std::string& folder) {
  const std::string path = folder + "/heap.korvex";
  persistent_malloc_s* const heap = persistent_malloc_init(path.c_str(), file_bytes);
  for (const long long id : {1, 10, 11, 12, 1025, 1034})
    std::memset(persistent_malloc(heap, id, 200, nullptr), static_cast<int>(id & 0xFF), 200);
  persistent_malloc(heap, 11, 300, nullptr);
  const std::uint64_t used = persistent_malloc_used_size(heap);
  persistent_malloc_destroy(heap);
  std::string saved = beginning_of(path).substr(0, used);
  append_digest(&saved);
  write_whole(path + ".compact", saved);
}

void settle_saved(const std::string& path, std::uint8_t choice) {
  if (choice == 1) return;
  std::string saved = beginning_of(path);
  if (choice == 0 || saved.size() < 8) {
    std::remove(path.c_str());
    return;
  }
  saved.resize(saved.size() - 8);
  append_digest(&saved);
  write_whole(path, saved);
}

struct block {
  char* data;
  std::uint64_t size;
  char mark;
};

// Asks for every id and fills what comes: blocks lie inside the used part, and none in another.
std::vector<block> fill_blocks(persistent_malloc_s* heap, std::uint8_t sizes) {
  std::vector<block> blocks;
  char mark = 1;
  for (const long long id : ids) {
    const std::uint64_t size = sizes * static_cast<std::uint64_t>(mark) % 400 + 1;
    auto* const data = static_cast<char*>(persistent_malloc(heap, id, size, nullptr));
    if (data != nullptr) {
      const auto* const base = static_cast<const char*>(heap->base);
      KORVEX_FUZZ_CHECK(data >= base + persistent_header_bytes + persistent_block_header_bytes);
      KORVEX_FUZZ_CHECK(data + size <= base + persistent_malloc_used_size(heap));
      KORVEX_FUZZ_CHECK((data - base) % 16 == 0);
      std::memset(data, mark, size);
      blocks.push_back({data, size, mark});
    }
    ++mark;
  }
  for (const block& each : blocks)
    for (std::uint64_t i = 0; i < each.size; ++i) KORVEX_FUZZ_CHECK(each.data[i] == each.mark);
  return blocks;
}

void check_header(const persistent_malloc_s* heap) {
  const persistent_header_s& header = *heap->header;
  KORVEX_FUZZ_CHECK(header.magic == persistent_magic && header.total_size == heap->total);
  KORVEX_FUZZ_CHECK(header.used_size >= persistent_header_bytes &&
                    header.used_size <= header.total_size);
}

}  // namespace

void index_file(const std::uint8_t* data, std::size_t size) {
  static const workshop shop("index_file", [](const workshop& made) { build(made.path()); });
  const std::string path = shop.path() + "/heap.korvex";
  input in(data, size);
  const auto saved = static_cast<std::uint8_t>(in.number<std::uint8_t>() % 3);
  const auto sizes = in.number<std::uint8_t>();
  shop.lay_out(&in);
  settle_saved(path + ".compact", saved);
  const std::string before = beginning_of(path);

  persistent_malloc_s* heap = persistent_malloc_init(path.c_str(), file_bytes);
  if (heap == nullptr) {
    KORVEX_FUZZ_CHECK(beginning_of(path) == before);
    return;
  }
  check_header(heap);
  const std::vector<block> written = fill_blocks(heap, sizes);
  check_header(heap);
  persistent_malloc_destroy(heap);

  // What was written is there at the next opening.
  heap = persistent_malloc_init(path.c_str(), file_bytes);
  KORVEX_FUZZ_CHECK(heap != nullptr);
  for (std::size_t i = 0, next = 0; i < std::size(ids) && next < written.size(); ++i) {
    const block& kept = written[next];
    if (kept.mark != static_cast<char>(i + 1)) continue;
    ++next;
    unsigned old_size = 0;
    auto* const again = static_cast<char*>(persistent_malloc(heap, ids[i], kept.size, &old_size));
    KORVEX_FUZZ_CHECK(again != nullptr && old_size >= kept.size);
    for (std::uint64_t k = 0; k < kept.size; ++k) KORVEX_FUZZ_CHECK(again[k] == kept.mark);
  }
  persistent_malloc_destroy(heap);
}

}  // namespace korvex::fuzz
