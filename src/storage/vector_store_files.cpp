#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "runtime/log.h"
#include "runtime/platform/files.h"
#include "runtime/platform/memory.h"
#include "storage/mapping.h"
#include "storage/persistent_allocator_format.h"
#include "storage/vector_store_internal.h"

namespace korvex {

namespace store {
namespace {

constexpr std::size_t path_room = 128;  // beyond directory and prefix: codes, extension, separators

// In the store's own buffer: valid until the next call.
const char* block_path(vector_manager_s& m, std::uint32_t index) {
  char code[hex_compress_room];
  string_hex_compress(std::uint64_t{m.kind} << 32 | index, true, code);
  std::snprintf(m.path + m.path_length, path_room / 2, "%s.%s", code, m.extension);
  return m.path;
}

void log_map_failure(const vector_manager_s& m, const char* path) {
  KORVEX_LOG("failed to map file %s size %llu\n", path,
             static_cast<unsigned long long>(block_bytes(m)));
}

// Whether the file is that of an open index, which is called as the block is.
bool is_open_index(const char* path) {
  std::uint64_t magic = 0;
  const int fd = platform::open_file(path, platform::open_mode::read_only);
  if (fd < 0) return false;
  const bool open = platform::read_at(fd, &magic, sizeof magic, 0) == sizeof magic &&
                    magic == persistent_magic && platform::lock_file(fd) != 0;
  platform::close_file(fd);
  return open;
}

// Whatever stands where a new block must go was refused by the restore, which said so: its bytes
// are kept under another name, because a block that is written into must start empty. False when it
// cannot or must not be moved.
bool set_aside(const char* path) {
  const platform::file_status status = platform::status_of(path);
  if (!status.exists) return true;
  if (status.regular && status.size == 0) return platform::remove_file(path) == 0;
  if (status.regular && is_open_index(path)) return false;
  return platform::rename_file(path, (std::string(path) + ".bad").c_str()) == 0;
}

void log_reserve_failure(const char* path, int error) {
  KORVEX_LOG("ftruncate failed for file %s: %s\n", path, platform::error_text(error).c_str());
}

std::uint64_t bytes_to_slot(const vector_manager_s& m, std::uint64_t end) {
  return vector_block_header_bytes + end * m.record_size;
}

mmap_handle_t* map_block_file(const vector_manager_s& m, const char* path, bool open_existing) {
  auto* mapping = new (std::nothrow) mmap_handle_t{};
  if (mapping != nullptr)
    *mapping =
        platform_mmap_file(path, block_bytes(m), m.huge_pages != 0, m.lock != 0, open_existing);
  if (mapping != nullptr && mapping->data != nullptr) return mapping;
  log_map_failure(m, path);
  delete mapping;
  return nullptr;
}

bool accept_block(const vector_manager_s& m, const vector_block_s& block, const char* path,
                  std::uint32_t index) {
  switch (check_vector_block(block.data, block.mapping->size, m.record_size, m.records_per_block,
                             index)) {
    case vector_block_verdict::good:
      return true;
    case vector_block_verdict::too_short:
      log_map_failure(m, path);
      return false;
    case vector_block_verdict::bad_signature:
      KORVEX_LOG("Invalid signature in existing file %s\n", path);
      return false;
    case vector_block_verdict::bad_header:
      KORVEX_LOG("Invalid block header in block %u\n", index);
      return false;
  }
  return false;
}

enum class restored { taken, none, failed };

// The next block from its file, if there is a sound one. A file that could hold one but cannot be read now, for want of
// rights, descriptors or memory, is a failure: taken for lost, its records would be given up.
restored restore_block(vector_manager_s& m, std::uint32_t index) {
  const char* path = block_path(m, index);
  const platform::file_status status = platform::status_of(path);
  if (!status.exists) return restored::none;
  if (!make_block_slot(m)) {
    std::fprintf(stderr, "Failed to expand chunk array during restore\n");
    return restored::failed;
  }
  mmap_handle_t* mapping = map_block_file(m, path, true);
  if (mapping == nullptr)
    return status.regular && status.size >= block_bytes(m) ? restored::failed : restored::none;
  const vector_block_s block{static_cast<std::byte*>(mapping->data), mapping};
  if (!accept_block(m, block, path, index)) {
    release_block(block);
    return restored::none;
  }
  // Records will be written in place; a copied file may have holes. A disk without room for those
  // is no reason to hide the records.
  const std::uint32_t used = header_of(block).records_used;
  if (mapping_reserve(mapping, bytes_to_slot(m, used)) != 0) log_reserve_failure(path, errno);
  append_block(m, block);
  m.next_id.store(m.records_per_block * index + used, std::memory_order_release);
  return restored::taken;
}

}  // namespace

// What stands behind the place of a new block, from the time before a block in between was refused or lost, must go as
// well: the next opening would count those records in again, behind the new ones. A power cut may leave gaps.
bool set_aside_from(vector_manager_s& m, std::uint32_t index) {
  constexpr std::uint64_t widest_gap = 64;
  std::uint64_t end = std::uint64_t{index} + 1 + widest_gap;
  for (std::uint64_t next = std::uint64_t{index} + 1; next < end && next < vector_no_id; ++next) {
    const char* const path = block_path(m, static_cast<std::uint32_t>(next));
    if (!platform::status_of(path).exists) continue;
    if (!set_aside(path)) return false;
    end = next + 1 + widest_gap;
  }
  return set_aside(block_path(m, index));
}

bool name_files(vector_manager_s& m, const vectpool_conf_s& conf) {
  const std::size_t room = std::strlen(conf.directory) + std::strlen(conf.prefix) + path_room;
  m.path = static_cast<char*>(platform::aligned_malloc(room, alignof(std::max_align_t)));
  if (m.path == nullptr) return false;
  std::snprintf(m.extension, sizeof m.extension, "%s", conf.extension);
  char code[hex_compress_room];
  string_hex_compress(std::uint64_t{m.record_size} << 32 | m.records_per_block, true, code);
  m.path_length = std::snprintf(m.path, room, "%s/%s-%s-", conf.directory, conf.prefix, code);
  return true;
}

vector_block_s make_file_block(vector_manager_s& m, std::uint32_t index, std::uint32_t count) {
  const bool free_place = set_aside_from(m, index);
  const char* path = block_path(m, index);
  if (!free_place) {
    log_map_failure(m, path);
    return {};
  }
  mmap_handle_t* mapping = map_block_file(m, path, false);
  if (mapping == nullptr) return {};
  const vector_block_s block{static_cast<std::byte*>(mapping->data), mapping};
  if (mapping_reserve(mapping, bytes_to_slot(m, count)) != 0) {
    log_reserve_failure(path, errno);
    release_block(block);
    platform::remove_file(path);
    return {};
  }
  write_header(m, block);
  return block;
}

bool reserve_slots(vector_manager_s& m, std::uint32_t index, std::uint64_t end) {
  if (m.persistent == 0) return true;
  const vector_block_s& block = m.blocks.load(std::memory_order_relaxed)[index];
  if (mapping_reserve(block.mapping, bytes_to_slot(m, end)) == 0) return true;
  const int error = errno;
  log_reserve_failure(block_path(m, index), error);
  return false;
}

bool restore_blocks(vector_manager_s& m) {
  std::uint32_t count = 0;
  restored result = restore_block(m, count);
  for (; result == restored::taken; result = restore_block(m, count)) ++count;
  if (result == restored::failed) return false;
  const std::uint32_t next_id = m.next_id.load(std::memory_order_relaxed);
  if (next_id != 0) KORVEX_LOG("restored %u vectors from %u blocks\n", next_id, count);
  return true;
}

}  // namespace store
}  // namespace korvex
