#include "engine/statistics.h"

#include <atomic>
#include <string>

#include "engine/index_files.h"
#include "engine/points.h"
#include "runtime/platform/files.h"

namespace korvex {

namespace {

std::uint64_t disk_bytes(const hnsw_s* hnsw) {
  if (hnsw->on_disk == 0 || hnsw->directory == nullptr || hnsw->name == nullptr) return 0;
  const std::string name = hnsw->name;
  std::uint64_t bytes = 0;
  for (const platform::directory_entry& entry : platform::list_directory(hnsw->directory)) {
    const std::string path = std::string(hnsw->directory) + "/" + entry.name;
    const bool own = entry.name == name + ".korvex" ||
                     (is_block_file_of(name, entry.name) && !holds_index(path));
    if (!own || !entry.regular) continue;
    const std::uint64_t allocated = platform::allocated_bytes(path.c_str());
    bytes += allocated != 0 ? allocated : entry.size;
  }
  return bytes;
}

}  // namespace

index_statistics collect_statistics(const hnsw_s* hnsw) {
  index_statistics result;
  result.disk_bytes = disk_bytes(hnsw);
  result.added = load_counter(hnsw->added);
  const std::uint32_t networked = load_counter(hnsw->networked);
  result.unlinked = result.added > networked ? result.added - networked : 0;
  if (load_counter(hnsw->memory_initialised) == 0) return result;
  const korvex_runtime_s& runtime = *hnsw->runtime;
  for (const vectpool_c* store : runtime.store)
    if (store != nullptr)
      result.memory_bytes += std::uint64_t{store->size()} * store->record_size();
  result.memory_bytes +=
      std::uint64_t{runtime.star_pool->size()} * runtime.star_pool->record_size();
  for (std::uint32_t id = 1; id <= result.added; ++id) {
    std::uint8_t* const word = flags_of(runtime, id);
    const std::uint8_t flags =
        word == nullptr ? std::uint8_t{0} : std::atomic_ref<std::uint8_t>(*word).load();
    result.deleted += (flags & flag_deleted) != 0 ? 1 : 0;
    result.duplicates += (flags & flag_duplicate) != 0 ? 1 : 0;
  }
  return result;
}

}  // namespace korvex
