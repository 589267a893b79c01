#include "storage/vector_store.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/memory.h"
#include "storage/data_cache.h"
#include "storage/mapping.h"
#include "storage/vector_store_internal.h"

namespace korvex {
namespace {

constexpr std::uint32_t largest_record = 1u << 31;
constexpr std::uint32_t smallest_reusable_record = sizeof(vector_free_run_s);
constexpr std::size_t manager_alignment = 64;

vector_block_s* allocate_block_array(std::uint32_t capacity) {
  void* memory =
      platform::aligned_malloc(sizeof(vector_block_s) * std::size_t{capacity}, manager_alignment);
  if (memory == nullptr) return nullptr;
  auto* blocks = static_cast<vector_block_s*>(memory);
  std::uninitialized_value_construct_n(blocks, capacity);
  return blocks;
}

vector_manager_s* allocate_manager() {
  void* memory = platform::aligned_malloc(sizeof(vector_manager_s), manager_alignment);
  auto* m = memory == nullptr ? nullptr : new (memory) vector_manager_s{};
  vector_block_s* blocks =
      m == nullptr ? nullptr : allocate_block_array(vector_manager_s::first_block_capacity);
  if (blocks == nullptr) {
    KORVEX_LOG("aligned_malloc failed\n");
    if (m != nullptr) std::destroy_at(m);
    platform::aligned_free(memory);
    return nullptr;
  }
  m->block_capacity = vector_manager_s::first_block_capacity;
  m->blocks.store(blocks, std::memory_order_relaxed);
  return m;
}

// Everything but the registry.
void release_store(vector_manager_s* m) {
  data_cache_destroy(m->data_cache);  // may hold pages of the mappings
  vector_block_s* blocks = m->blocks.load(std::memory_order_relaxed);
  const std::uint32_t count = m->block_count.load(std::memory_order_relaxed);
  for (std::uint32_t i = 0; i < count; ++i) store::release_block(blocks[i]);
  for (std::uint32_t i = 0; i < m->retired_count; ++i) platform::aligned_free(m->retired[i]);
  platform::aligned_free(blocks);
  platform::aligned_free(m->path);
  std::destroy_at(m);
  platform::aligned_free(m);
}

void set_geometry(vector_manager_s& m, std::uint32_t record_size, std::uint64_t bytes,
                  std::uint32_t align) {
  m.record_size = record_size;
  m.records_per_block = vector_records_per_block(record_size, bytes);
  m.id_mask = m.records_per_block - 1;
  m.id_shift = static_cast<std::uint32_t>(std::countr_zero(m.records_per_block));
  m.block_data_bytes = std::uint64_t{record_size} * m.records_per_block;
  m.reuse_enabled = record_size >= smallest_reusable_record ? 1 : 0;
  if (align != 0)
    m.anonymous_alignment = std::bit_ceil(std::clamp<std::uint32_t>(align, 64, 1u << 31));
}

// Settings that the system may not be able to follow; tells conf what became of them.
void apply_placement(vector_manager_s& m, vectpool_conf_s& conf) {
  if (conf.huge_pages != 0) {
    m.huge_pages_available = check_hugetlb_available() != 0 ? 1 : 0;
    if (m.huge_pages_available == 0) {
      KORVEX_LOG("Warning: Huge pages requested but not available on this system.\n");
      conf.huge_pages = 0;
    }
  }
  if (conf.numa_node >= 0 && dyn_numa_init() != 0) conf.numa_node = -1;
  m.huge_pages = conf.huge_pages != 0 ? 1 : 0;
  m.numa_node = conf.numa_node;
  m.persistent = conf.persistent;
  m.lock = m.persistent != 0 && conf.lock != 0 ? 1 : 0;
}

bool set_up_files(vector_manager_s& m, vectpool_conf_s& conf) {
  if (conf.prefix == nullptr) conf.prefix = "nimbra-korvex";
  if (conf.extension == nullptr) conf.extension = "vp";
  if (!store::name_files(m, conf)) return false;
  if (conf.cache_size != 0)
    m.data_cache = data_cache_init(m.record_size, conf.cache_size, conf.cache_mode);
  return true;
}

vector_block_s make_memory_block(const vector_manager_s& m) {
  auto* mapping = new (std::nothrow) mmap_handle_t{};
  if (mapping == nullptr) return {};
  *mapping = platform_mmap_anon(store::block_bytes(m), m.anonymous_alignment, m.huge_pages != 0,
                                m.lock != 0, true);
  if (mapping->data == nullptr) {
    delete mapping;
    return {};
  }
  if (m.numa_node >= 0) dyn_numa_helper(mapping->data, mapping->size, m.numa_node);
  const vector_block_s block{static_cast<std::byte*>(mapping->data), mapping};
  store::write_header(m, block);
  return block;
}

// Hands out the next `count` slots of the last block, which has them.
void* take_slots(vector_manager_s& m, std::uint32_t first, unsigned* id_out, std::uint32_t count) {
  const vector_block_s* blocks = m.blocks.load(std::memory_order_relaxed);
  store::header_of(blocks[first >> m.id_shift]).records_used += count;
  m.next_id.store(first + count, std::memory_order_release);
  *id_out = first;
  return vector_get(&m, first);
}

void* add_in_new_block(vector_manager_s& m, unsigned* id_out, std::uint32_t count) {
  const std::uint32_t index = m.block_count.load(std::memory_order_relaxed);
  const std::uint64_t first = std::uint64_t{index} * m.records_per_block;
  if (first + count >= vector_no_id || !store::make_block_slot(m)) return nullptr;

  // Slots that are too few for this request are kept for smaller ones. They need room on disk too.
  const std::uint32_t rest = m.next_id.load(std::memory_order_relaxed);
  const bool keep_rest = rest < first && m.reuse_enabled != 0 &&
                         store::reserve_slots(m, index - 1, m.records_per_block);

  const vector_block_s block =
      m.persistent != 0 ? store::make_file_block(m, index, count) : make_memory_block(m);
  if (block.data == nullptr) return nullptr;
  store::append_block(m, block);
  void* records = take_slots(m, static_cast<std::uint32_t>(first), id_out, count);
  if (keep_rest) store::free_records(m, rest, static_cast<std::uint32_t>(first) - rest);
  return records;
}

}  // namespace

namespace store {

void write_header(const vector_manager_s& m, const vector_block_s& block) {
  vector_block_header_s header{};
  std::copy(std::begin(vector_block_signature), std::end(vector_block_signature), header.signature);
  header.header_size = vector_block_header_bytes;
  header.file_size = m.persistent != 0 ? block_bytes(m) : 0;
  header.record_size = m.record_size;
  std::memcpy(block.data, &header, sizeof header);
}

bool make_block_slot(vector_manager_s& m) {
  const std::uint32_t count = m.block_count.load(std::memory_order_relaxed);
  if (count < m.block_capacity) return true;
  if (m.block_capacity > vector_no_id / 2 ||
      m.retired_count == vector_manager_s::max_retired_arrays)
    return false;
  vector_block_s* larger = allocate_block_array(m.block_capacity * 2);
  if (larger == nullptr) return false;
  vector_block_s* blocks = m.blocks.load(std::memory_order_relaxed);
  std::copy_n(blocks, count, larger);
  m.retired[m.retired_count++] = blocks;  // readers may still be in it
  m.block_capacity *= 2;
  m.blocks.store(larger, std::memory_order_release);
  return true;
}

void append_block(vector_manager_s& m, const vector_block_s& block) {
  const std::uint32_t count = m.block_count.load(std::memory_order_relaxed);
  // Readers know no id of this block before next_id or the caller publishes one.
  m.blocks.load(std::memory_order_relaxed)[count] = block;
  m.block_count.store(count + 1, std::memory_order_release);
}

void release_block(const vector_block_s& block) {
  if (block.mapping == nullptr) return;
  platform_munmap(block.mapping);
  delete block.mapping;
}

void* add_fresh(vector_manager_s& m, unsigned* id_out, std::uint32_t count) {
  const std::uint32_t next = m.next_id.load(std::memory_order_relaxed);
  const std::uint64_t end = std::uint64_t{next & m.id_mask} + count;
  const bool fits = next >> m.id_shift < m.block_count.load(std::memory_order_relaxed) &&
                    end <= m.records_per_block;
  if (!fits) return add_in_new_block(m, id_out, count);
  if (std::uint64_t{next} + count >= vector_no_id || !reserve_slots(m, next >> m.id_shift, end))
    return nullptr;
  return take_slots(m, next, id_out, count);
}

}  // namespace store

vector_manager_s* vector_create(unsigned record_size, unsigned long long block_bytes,
                                unsigned align, int kind, vectpool_conf_s* conf) {
  if (conf == nullptr) return nullptr;
  if (record_size == 0 || record_size > largest_record) {
    KORVEX_LOG("records of %u bytes cannot be stored\n", record_size);
    return nullptr;
  }
  if (conf->directory == nullptr) conf->persistent = 0;
  if (conf->persistent != 0 && (kind & 0xFF) == 0) {
    // Its block names repeat: block 1 would be block 0 again.
    KORVEX_LOG("a persistent store needs a kind from 1 to 255\n");
    return nullptr;
  }
  vector_manager_s* m = allocate_manager();
  if (m == nullptr) return nullptr;
  set_geometry(*m, record_size, block_bytes, align);
  m->kind = static_cast<std::uint8_t>(kind);

  if (conf->persistent != 0 && !set_up_files(*m, *conf)) {
    KORVEX_LOG("aligned_malloc failed\n");
    release_store(m);
    return nullptr;
  }
  apply_placement(*m, *conf);
  if (m->persistent == 0) return m;

  if (!store::register_store(*m)) {
    release_store(m);
    return nullptr;
  }
  bool complete = false;
  {
    const std::lock_guard guard(m->mutex);  // a vector_sync_all may know the store already
    complete = store::restore_blocks(*m);
  }
  if (complete) return m;
  vector_destroy(m);
  return nullptr;
}

void vector_destroy(vector_manager_s* m) {
  if (m == nullptr) return;
  if (m->persistent != 0) store::unregister_store(*m);
  release_store(m);
}

void* vector_add(vector_manager_s* m, unsigned* id_out, unsigned count) {
  if (m == nullptr) return nullptr;
  count = std::max(count, 1u);
  if (count > m->records_per_block) {
    KORVEX_LOG("currently not supporting more than block boundry: %u\n", count);
    return nullptr;
  }
  unsigned unwanted_id = 0;
  if (id_out == nullptr) id_out = &unwanted_id;
  const std::lock_guard guard(m->mutex);
  if (m->reuse_enabled != 0 && m->free_head != vector_no_id) {
    const std::uint32_t id = store::take_free_records(*m, count);
    if (id != vector_no_id) {
      *id_out = id;
      return vector_get(m, id);
    }
  }
  return store::add_fresh(*m, id_out, count);
}

void vector_free(vector_manager_s* m, unsigned id, unsigned count) {
  if (m == nullptr || m->reuse_enabled == 0) return;
  const std::lock_guard guard(m->mutex);
  store::free_records(*m, id, std::max(count, 1u));
}

void* vector_get_cached(vector_manager_s* m, unsigned id, int add) {
  if (m->data_cache == nullptr) return vector_get(m, id);
  if (void* copy = data_cache_get_copy(m->data_cache, id)) return copy;
  void* record = vector_get(m, id);
  if (add != 0) data_cache_add(m->data_cache, id, record);
  return record;
}

void vector_cache(vector_manager_s* m, unsigned id, void* addr) {
  if (m->data_cache == nullptr) return;
  data_cache_add(m->data_cache, id, addr != nullptr ? addr : vector_get(m, id));
}

bool vector_complete_blocks(vector_manager_s* m) {
  if (m == nullptr) return true;
  const std::lock_guard guard(m->mutex);
  const vector_block_s* blocks = m->blocks.load(std::memory_order_relaxed);
  const std::uint32_t count = m->block_count.load(std::memory_order_relaxed);
  for (std::uint32_t i = 0; i < count; ++i) {
    vector_block_header_s& header = store::header_of(blocks[i]);
    const std::uint32_t used = i + 1 < count ? m->records_per_block : header.records_used;
    if (!store::reserve_slots(*m, i, used)) return false;
    // A count that is right stays unwritten: the pages of a sound file stay clean.
    if (header.records_used != used) header.records_used = used;
  }
  return true;
}

bool vector_set_refused_aside(vector_manager_s* m) {
  if (m == nullptr || m->persistent == 0) return true;
  const std::lock_guard guard(m->mutex);
  return store::set_aside_from(*m, m->block_count.load(std::memory_order_relaxed));
}

vector_sync_result vector_sync_told(vector_manager_s* m, unsigned min_interval) {
  if (m == nullptr || m->persistent == 0) return vector_sync_result::done;
  const auto now = static_cast<std::uint32_t>(platform::time_usec() / 1000000);
  const std::uint32_t last = m->last_sync.load(std::memory_order_relaxed);
  if (min_interval != 0 && now - last < min_interval) return vector_sync_result::skipped;
  m->last_sync.store(now, std::memory_order_relaxed);

  auto result = vector_sync_result::done;
  const std::lock_guard guard(m->mutex);
  const vector_block_s* blocks = m->blocks.load(std::memory_order_relaxed);
  const std::uint32_t count = m->block_count.load(std::memory_order_relaxed);
  for (std::uint32_t i = 0; i < count; ++i) {
    store::header_of(blocks[i]).last_sync = now;
    if (sync_persistent_memory(blocks[i].mapping) != 0) result = vector_sync_result::refused;
  }
  return result;
}

int vector_sync(vector_manager_s* m, unsigned min_interval) {
  vector_sync_told(m, min_interval);
  return 0;
}

vectpool_c::vectpool_c(unsigned record_size, unsigned long long block_bytes, unsigned align,
                       int kind, vectpool_conf_s* conf)
    : manager_(vector_create(record_size, block_bytes, align, kind, conf)) {
  if (manager_ == nullptr) throw std::runtime_error("a record store could not be made");
}

}  // namespace korvex
