#include <cstring>
#include <memory>
#include <stdexcept>

#include "fuzz/target.h"
#include "storage/vector_store.h"

// The first byte chooses what is added and freed, then comes the damage to three blocks.
namespace korvex::fuzz {
namespace {

constexpr unsigned record_bytes = 24;
constexpr unsigned records_a_block = 16;

std::unique_ptr<vectpool_c> open(const std::string& folder) {
  vectpool_conf_s config;
  config.directory = folder.c_str();
  config.prefix = "store";
  config.extension = "korvex";
  config.persistent = 1;
  return std::make_unique<vectpool_c>(record_bytes, record_bytes * records_a_block, 64, 1, &config);
}

void build(const std::string& folder) {
  const auto store = open(folder);
  for (unsigned i = 0; i < 2 * records_a_block + 5; ++i) {
    unsigned id = 0;
    std::memset(store->alloc(&id, 1), static_cast<int>(i + 1), record_bytes);
  }
  store->free(3, 4);
}

void exercise(vectpool_c* store, std::uint8_t choice) {
  for (unsigned id = 0; id < store->size(); ++id)
    std::memset(store->get(id), static_cast<int>(id), record_bytes);
  for (unsigned count : {1u, 1u + choice % records_a_block, 3u}) {
    unsigned id = 0;
    void* const records = store->alloc(&id, count);
    KORVEX_FUZZ_CHECK(records != nullptr && id + count <= store->size());
    std::memset(records, 0x5A, std::size_t{count} * record_bytes);
    store->free(id, 1 + choice % 3);
  }
}

}  // namespace

void block_file(const std::uint8_t* data, std::size_t size) {
  static const workshop shop("block_file", [](const workshop& made) { build(made.path()); });
  input in(data, size);
  const auto choice = in.number<std::uint8_t>();
  shop.lay_out(&in);
  const std::vector<std::string> before = shop.contents();
  unsigned records = 0;
  {
    const auto store = open(shop.path());
    KORVEX_FUZZ_CHECK(shop.contents() == before);  // opening reads
    KORVEX_FUZZ_CHECK(store->size() <= 3 * records_a_block);
    exercise(store.get(), choice);
    records = store->size();
  }
  KORVEX_FUZZ_CHECK(open(shop.path())->size() == records);
}

}  // namespace korvex::fuzz
