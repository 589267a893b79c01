#ifndef KORVEX_STORAGE_VECTOR_STORE_H
#define KORVEX_STORAGE_VECTOR_STORE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace korvex {

struct data_cache_s;
struct mmap_handle_t;

inline constexpr std::uint32_t vector_no_id = 0xFFFFFFFF;
inline constexpr std::uint32_t vector_block_header_bytes = 128;

// How a store is made. The caller owns it and its strings; vector_create may write defaults back
// into it.
struct vectpool_conf_s {
  const char* directory = nullptr;  // of the block files; null: the store lives in memory
  const char* prefix = nullptr;     // of the file names; null becomes "nimbra-korvex"
  const char* extension = nullptr;  // of the file names, 16 characters count; null becomes "vp"
  std::uint32_t cache_size = 0;     // records that the data cache may hold, 0: no cache
  std::uint32_t cache_mode = 0;     // data_cache_mode_t
  std::uint32_t huge_pages = 0;     // cleared when the system has none
  std::int32_t numa_node = -1;      // below 0: none
  std::uint32_t persistent = 0;     // one file a block; cleared without a directory
  std::uint32_t lock = 0;           // keep file mappings in memory
};

// One mapping: a 128-byte header, then the records.
struct vector_block_s {
  std::byte* data;
  mmap_handle_t* mapping;
};

// A run of free records as it stands in the first 16 bytes of a free record.
struct vector_free_run_s {
  std::uint32_t first;
  std::uint32_t marker;
  std::uint32_t length;
  std::uint32_t next;
};
static_assert(sizeof(vector_free_run_s) == 16);

// Fixed-size records addressed by dense 32-bit ids, in mappings of a power-of-two record count.
// Threads     get and count take no lock and may run beside additions; add, free and sync take the
//             mutex. Who hands an id to another thread does so with release / acquire: that also
//             publishes the record and the blocks behind it.
// Ownership   the store owns every record until vector_destroy.
// Invariant   a block never moves; the array of blocks is replaced whole, and the replaced arrays
//             are kept until the end.
struct alignas(64) vector_manager_s {
  static constexpr std::uint32_t scratch_runs = 1024;
  static constexpr std::uint32_t first_block_capacity = 16;
  static constexpr std::uint32_t max_retired_arrays = 32;  // capacities double, ids have 32 bits

  // Read by every lookup. All but `blocks` is fixed at creation.
  std::atomic<vector_block_s*> blocks{nullptr};
  std::uint32_t record_size = 0;
  std::uint32_t id_mask = 0;
  std::uint32_t id_shift = 0;
  std::uint32_t records_per_block = 0;
  data_cache_s* data_cache = nullptr;
  std::uint64_t block_data_bytes = 0;
  std::uint32_t anonymous_alignment = 0;
  std::uint8_t kind = 0;
  char extension[17] = {};

  // Written by additions under the mutex, read by anyone.
  alignas(64) std::atomic<std::uint32_t> next_id{0};
  std::atomic<std::uint32_t> block_count{0};
  std::atomic<std::uint32_t> last_sync{0};  // seconds

  // Fixed at creation.
  std::uint32_t lock = 0;
  std::uint32_t persistent = 0;
  std::int32_t numa_node = -1;
  std::uint32_t huge_pages = 0;
  std::uint32_t huge_pages_available = 0;
  std::uint32_t reuse_enabled = 0;
  std::int32_t path_length = 0;

  // Guarded by the mutex.
  std::mutex mutex;
  char* path = nullptr;  // fixed part, behind it the part of the block that was named last
  std::uint32_t block_capacity = 0;
  std::uint32_t free_head = vector_no_id;
  std::uint32_t free_runs = 0;
  std::uint32_t free_records = 0;
  std::uint32_t frees_since_compaction = 0;
  std::uint32_t retired_count = 0;
  vector_block_s* retired[max_retired_arrays] = {};
  vector_free_run_s scratch[scratch_runs] = {};

  // Guarded by the registry's mutex: all live persistent stores form a list.
  vector_manager_s* next_live = nullptr;
  std::uint32_t syncs_in_progress = 0;
};

// Makes a store; a persistent one finds its records again. Records per block: the next power of two
// of block_bytes / record_size. Null for a null conf, a record size of 0 or above 2^31, when memory
// fails, when a live store of this process has the same files, or when one of its files cannot be
// opened or mapped now: it stays as it is then. Files that are too short or damaged end the records
// that are found.
vector_manager_s* vector_create(unsigned record_size, unsigned long long block_bytes,
                                unsigned align, int kind, vectpool_conf_s* conf);

// Releases the mappings and files. Null is allowed. Waits for a vector_sync_all that is busy with
// this store; no other call on the store may be running.
void vector_destroy(vector_manager_s* m);

// Hands out `count` (0: 1) records with consecutive ids in one block; *id_out is the first. Records
// never used before read as zeros. Null when count exceeds a block, ids or memory ran out, or the
// disk is full; the store is unchanged then.
void* vector_add(vector_manager_s* m, unsigned* id_out, unsigned count);

// Takes back `count` (0: 1) records for reuse; their first 16 bytes are overwritten. Does nothing
// when records are smaller than 16 bytes or id was never handed out.
void vector_free(vector_manager_s* m, unsigned id, unsigned count);

// Where record `id` of these blocks lies.
inline void* vector_address(const vector_block_s* blocks, unsigned id, unsigned id_shift,
                            unsigned id_mask, std::size_t record_size) {
  return blocks[id >> id_shift].data + vector_block_header_bytes + (id & id_mask) * record_size;
}

// The address of a record that was handed out; no check. Runs in every distance evaluation. Touches
// no record memory, so that it serves to compute addresses for prefetching.
inline void* vector_get(const vector_manager_s* m, unsigned id) {
  const vector_block_s* blocks = m->blocks.load(std::memory_order_acquire);
  return vector_address(blocks, id, m->id_shift, m->id_mask, m->record_size);
}

// The records that a store had handed out at one moment, for loops that address many of them.
class vector_view {
 public:
  explicit vector_view(const vector_manager_s* m)
      : count_(m->next_id.load(std::memory_order_acquire)),
        blocks_(m->blocks.load(std::memory_order_acquire)),
        id_mask_(m->id_mask),
        id_shift_(m->id_shift),
        record_size_(m->record_size) {}

  bool has(unsigned id) const { return id < count_; }
  // As vector_get.
  void* get(unsigned id) const {
    return vector_address(blocks_, id, id_shift_, id_mask_, record_size_);
  }

 private:
  const unsigned count_;  // read first: the blocks of these records are there by then
  const vector_block_s* const blocks_;
  const unsigned id_mask_;
  const unsigned id_shift_;
  const std::size_t record_size_;
};

// As vector_get, or a copy from the data cache. A copy lives until this thread's call number
// data_cache_copies from now, on any store. `add` non-zero puts a missed record into the cache. Only for records that no
// longer change.
void* vector_get_cached(vector_manager_s* m, unsigned id, int add);

// Puts a record (addr null: the store's own) into the data cache, if there is one.
void vector_cache(vector_manager_s* m, unsigned id, void* addr);

// The first id that was never handed out.
inline unsigned vector_count(const vector_manager_s* m) {
  return m->next_id.load(std::memory_order_acquire);
}

// For a store whose records are taken one by one, so that all blocks but the last are full: makes the
// counts of those blocks say so, which a crash may have left older than the blocks behind them, and makes
// room on disk for every record that was handed out. Nobody else uses the store.
// False, after a line, when the disk is full.
bool vector_complete_blocks(vector_manager_s* m);

// Sets the files aside that stand where the next blocks would go: the restore refused the first of them, and said so.
// Nobody else uses the store. False when one cannot be moved.
bool vector_set_refused_aside(vector_manager_s* m);

// Flushes a persistent store to its files unless fewer than min_interval seconds passed since the
// last time. What became of it: done when everything that was written before the call is on the
// device, refused when the device did not take a block, now or earlier.
enum class vector_sync_result { done, skipped, refused };
vector_sync_result vector_sync_told(vector_manager_s* m, unsigned min_interval);
// The same. 0.
int vector_sync(vector_manager_s* m, unsigned min_interval);
// The same for every registered store of the process. 0.
int vector_sync_all(unsigned min_interval);

// A store as an object. The constructor throws std::runtime_error when vector_create fails.
class vectpool_c {
 public:
  vectpool_c(unsigned record_size, unsigned long long block_bytes, unsigned align, int kind,
             vectpool_conf_s* conf);
  ~vectpool_c() { vector_destroy(manager_); }
  vectpool_c(const vectpool_c&) = delete;
  vectpool_c& operator=(const vectpool_c&) = delete;

  void* alloc(unsigned* id_out, unsigned count) { return vector_add(manager_, id_out, count); }
  void* get(unsigned id) const { return vector_get(manager_, id); }
  void* get_cached(unsigned id, int add) { return vector_get_cached(manager_, id, add); }
  void cache(unsigned id, void* addr) { vector_cache(manager_, id, addr); }
  void free(unsigned id, unsigned count) { vector_free(manager_, id, count); }
  unsigned size() const { return vector_count(manager_); }
  bool complete_blocks() { return vector_complete_blocks(manager_); }
  bool set_refused_aside() { return vector_set_refused_aside(manager_); }
  int sync(unsigned min_interval) { return vector_sync(manager_, min_interval); }
  vector_sync_result sync_told(unsigned min_interval) {
    return vector_sync_told(manager_, min_interval);
  }

  unsigned record_size() const { return manager_->record_size; }
  unsigned records_per_block() const { return manager_->records_per_block; }
  const vector_manager_s* manager() const { return manager_; }

 private:
  vector_manager_s* manager_;
};

}  // namespace korvex

#endif  // KORVEX_STORAGE_VECTOR_STORE_H
