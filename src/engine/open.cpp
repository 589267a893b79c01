#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

#include "engine/configuration.h"
#include "engine/index_files.h"
#include "engine/runtime.h"
#include "engine/startup.h"
#include "engine/stored_record.h"
#include "engine/teardown.h"
#include "math/topology.h"
#include "runtime/disk_probe.h"
#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/files.h"
#include "runtime/platform/processor.h"
#include "runtime/platform/threads.h"
#include "runtime/random.h"
#include "runtime/text_box.h"
#include "storage/persistent_allocator.h"

namespace korvex {

namespace {

constexpr const char* product_folder = "nimbra-korvex";
constexpr const char* default_name = "nimbra-korvex";
constexpr unsigned index_file_bytes = 52'428'800;
constexpr long long record_block = 1;
constexpr int box_columns = 80;

struct manager_closer {
  void operator()(persistent_malloc_s* manager) const { persistent_malloc_destroy(manager); }
};
using manager_handle = std::unique_ptr<persistent_malloc_s, manager_closer>;

struct index_location {
  std::string directory;  // empty: in memory
  std::string name;
  std::string file;
};

bool refuse_single_core() {
  if (platform::processor_count() != 1) return false;
  const std::string_view lines[] = {":Single-Core CPU Detected \u2013 Korvex Disabled", "-",
                                    "Korvex requires a multi-core CPU for optimal performance. "
                                    "Since most modern CPUs are multi-core, running it on a "
                                    "single-core processor is neither practical nor supported."};
  print_text_box(log_fp(), lines, box_columns);
  return true;
}

// A base that already names the library's folder loses that component: the directory gets it once.
// Only the backslash separates here; forward slashes stay as they are.
std::string_view normalised_base(std::string_view base) {
  const auto drop_backslashes = [&base] {
    while (!base.empty() && base.back() == '\\') base.remove_suffix(1);
  };
  drop_backslashes();
  const std::string component = std::string("\\") + product_folder;
  if (base.size() < component.size() || !base.ends_with(component)) return base;
  base.remove_suffix(component.size());
  drop_backslashes();
  return base;
}

// Creates the directory of an index. False after the line.
bool locate(const char* base_path, const char* index_name, unsigned instance_id,
            index_location* out) {
  nvme_check_disk(base_path);
  out->name = index_name != nullptr && *index_name != '\0' ? index_name : default_name;
  const std::string base(normalised_base(base_path));
  out->directory = base + "/" + product_folder + "/" + std::to_string(instance_id);
  out->file = out->directory + "/" + out->name + ".korvex";
  KORVEX_LOG("Korvex Index Path: On-Disk (%.*s/%s/)\n", static_cast<int>(base.size()), base.c_str(),
             product_folder);
  int error = 0;
  if (out->name.find_first_of("/\\") != std::string::npos)
    error = EINVAL;
  else if (platform::create_directories(out->directory.c_str()) != 0)
    error = errno != 0 ? errno : EIO;
  if (error == 0) return true;
  KORVEX_LOG_CRITICAL("Unable to access or create path: %s (%s)\n", out->directory.c_str(),
                      platform::error_text(error).c_str());
  return false;
}

// 28 bits that differ between indexes made in the same second by different processes: the generators
// of threads that just started are seeded from the clock's seconds.
std::uint64_t new_identity(const void* record) {
  std::uint64_t z = random_u64() ^ platform::time_usec() ^ platform::monotonic_ns() ^
                    (std::uint64_t{platform::thread_id()} << 40) ^
                    reinterpret_cast<std::uintptr_t>(record);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
  return (z ^ (z >> 31)) >> 36;
}

void write_defaults(hnsw_s* hnsw, std::uint32_t dimension, std::uint8_t instance_id) {
  const int processors = platform::processor_count();
  hnsw->config_valid = 1;
  hnsw->element_bytes = sizeof(float);
  hnsw->id_bytes = sizeof(std::uint32_t);
  hnsw->dimension = dimension;
  hnsw->vector_bytes = dimension * hnsw->element_bytes;
  hnsw->validate_parameters = 1;
  hnsw->pattern_probes = 2;
  hnsw->allocation_units_flag = 1;
  hnsw->numa_node = -1;
  hnsw->constant8 = 8;
  hnsw->instance_id = instance_id;
  hnsw->indexing_threads = std::max(processors - 1, 4);
  hnsw->search_threads = processors;
  hnsw->search_queue_limit = 2 * processors;
  hnsw->neighbour_capacity = 32;
  hnsw->radius = 100;
  hnsw->duplicate_option = 1;
  hnsw->duplicate_threshold = threshold_off;
  hnsw->parallel_search_jobs = 128;
  hnsw->log_handle = -1;
  hnsw->log_enabled = 1;
  hnsw->clean_close = 1;
  hnsw->identity = new_identity(hnsw);
}

struct text_deleter {
  void operator()(char* text) const { std::free(text); }
};
using text_copy = std::unique_ptr<char, text_deleter>;

// Nothing is taken when memory is short.
bool bind_to_process(hnsw_s* hnsw, persistent_malloc_s* manager, const index_location& location) {
  const bool on_disk = !location.directory.empty();
  const memory_usage_s usage = take_memory_usage();
  text_copy directory(on_disk ? ::strdup(location.directory.c_str()) : nullptr);
  text_copy name(on_disk ? ::strdup(location.name.c_str()) : nullptr);
  std::unique_ptr<korvex_runtime_s> runtime(new (std::nothrow) korvex_runtime_s(hnsw));
  if (runtime == nullptr || (on_disk && (directory == nullptr || name == nullptr))) return false;
  korvex_prepare_free();
  hnsw->memory_manager = manager;
  hnsw->on_disk = on_disk ? 1 : 0;
  hnsw->directory = directory.release();
  hnsw->name = name.release();
  hnsw->memory_usage = usage;
  hnsw->runtime = runtime.release();
  cond_init(&hnsw->runtime->add_cond);
  return true;
}

// Gives a record back that was not bound to anything; one in a file stays there.
struct record_releaser {
  persistent_malloc_s* manager;
  void operator()(hnsw_s* hnsw) const { persistent_free(manager, hnsw); }
};
using record_handle = std::unique_ptr<hnsw_s, record_releaser>;

hnsw_s* create_or_reopen(persistent_malloc_s* manager, const index_location& location,
                         std::uint32_t dimension, std::uint8_t instance_id) {
  unsigned stored_bytes = 0;
  record_handle hnsw(
      static_cast<hnsw_s*>(persistent_malloc(manager, record_block, sizeof(hnsw_s), &stored_bytes)),
      {manager});
  if (hnsw == nullptr) return nullptr;
  if (stored_bytes == sizeof(hnsw_s) && hnsw->config_valid == 1) {
    KORVEX_LOG("Found an existing Korvex config\n");
    // Compared before the first write: a refused file stays as it was.
    if (!record_matches(*hnsw, dimension, instance_id) ||
        stores_are_lost(*hnsw, location.directory, location.name)) {
      KORVEX_LOG_CRITICAL("Bad or mismatched configuration detected. Check and reinitialize.\n");
      return nullptr;
    }
    clear_process_fields(hnsw.get());
    settle_record(hnsw.get());
  } else {
    std::memset(static_cast<void*>(hnsw.get()), 0, sizeof(hnsw_s));
    KORVEX_LOG("creating a new Korvex config with defaults\n");
    write_defaults(hnsw.get(), dimension, instance_id);
  }
  return bind_to_process(hnsw.get(), manager, location) ? hnsw.release() : nullptr;
}

// Waits until fewer than `closing` indexes are being given up. False when that takes too long.
bool wait_for_close(int closing) {
  constexpr std::uint64_t patience_ms = 2'000;
  const std::uint64_t begin = platform::time_ms();
  while (indexes_closing.load() >= closing) {
    if (platform::time_ms() - begin > patience_ms) return false;
    platform::sleep_usec(1'000);
  }
  return true;
}

// Locked. An index that this process is giving up can be opened as soon as its last thread has left it.
persistent_malloc_s* open_locked(const std::string& file) {
  int closing = 0;
  do {
    closing = indexes_closing.load();
    persistent_malloc_s* const manager = persistent_malloc_init(file.c_str(), index_file_bytes);
    if (manager == nullptr || persistent_malloc_lock(manager) == 0) return manager;
    persistent_malloc_destroy(manager);
  } while (closing != 0 && wait_for_close(closing));
  KORVEX_LOG_CRITICAL("the index is in use: %s is open here or in another process\n", file.c_str());
  return nullptr;
}

persistent_malloc_s* open_manager(const index_location& location) {
  if (location.directory.empty()) return persistent_malloc_init(nullptr, 0);
  if (!holds_block(location.file)) return open_locked(location.file);
  KORVEX_LOG_CRITICAL("%s is a block file of another index: choose another name\n",
                      location.file.c_str());
  return nullptr;
}

}  // namespace

hnsw_s* korvex_init(std::uint32_t dimension, std::uint8_t instance_id, const char* base_path,
                    const char* index_name) {
  korvex_process_start();
  if (refuse_single_core()) return nullptr;
  if (dimension < 1 || dimension > max_dimension) {
    KORVEX_LOG_CRITICAL("Bad or mismatched configuration detected. Check and reinitialize.\n");
    return nullptr;
  }
  index_location location;
  if (base_path == nullptr || *base_path == '\0')
    KORVEX_LOG("Korvex Index Path: In-Memory\n");
  else if (!locate(base_path, index_name, instance_id, &location))
    return nullptr;

  manager_handle manager(open_manager(location));
  if (manager == nullptr) {
    KORVEX_LOG_CRITICAL("Unable to allocate memory manager..\n");
    return nullptr;
  }
  hnsw_s* const hnsw = create_or_reopen(manager.get(), location, dimension, instance_id);
  if (hnsw != nullptr) manager.release();
  return hnsw;
}

}  // namespace korvex
