#include "storage/persistent_allocator_file.h"

#include <xxhash.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "runtime/log.h"
#include "runtime/platform/files.h"

namespace korvex {
namespace {

using ull = unsigned long long;

// The saved part of a file: its used bytes, then XXH64 of them with seed 0. Only a whole one is ever put back.
constexpr std::uint64_t digest_bytes = sizeof(XXH64_hash_t);

std::string saved_path(const char* path) {
  return std::string(path) + ".compact";
}

persistent_header_s* header_of(const mmap_handle_t& file) {
  return static_cast<persistent_header_s*>(file.data);
}

std::string directory_of(const std::string& path) {
  const std::size_t slash = path.find_last_of("/\\");
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

bool save_used_part(const mmap_handle_t& file, const std::string& saved) {
  const std::uint64_t used = header_of(file)->used_size;
  const int fd = platform::open_file(saved.c_str(), platform::open_mode::truncate);
  if (fd < 0) return false;
  const XXH64_hash_t digest = XXH64(file.data, used, 0);
  const bool done = platform::write_all(fd, file.data, used) &&
                    platform::write_all(fd, &digest, sizeof digest) && platform::sync_file(fd) == 0;
  platform::close_file(fd);
  return done && platform::sync_directory(directory_of(saved).c_str()) == 0;
}

bool flush(mmap_handle_t* file, const char* path) {
  if (sync_persistent_memory(file) == 0) return true;
  KORVEX_LOG("failed to flush %s: %s\n", path, platform::error_text(errno).c_str());
  return false;
}

struct moved_blocks {
  std::uint64_t read;   // where reading stopped
  std::uint64_t write;  // where the last live block ends now
};

// The block at `read` when it is whole; logs what is wrong with it otherwise.
bool read_for_move(const void* base, std::uint64_t used, std::uint64_t read,
                   persistent_block_s* block) {
  switch (persistent_read_block(base, used, read, block)) {
    case persistent_block_fault::none:
      return true;
    case persistent_block_fault::bad_offset:
      KORVEX_LOG("compaction error: read offset %llu exceeds used size %llu\n",
                 static_cast<ull>(read), static_cast<ull>(used));
      return false;
    default:
      KORVEX_LOG("Corrupted block at offset %llu\n", static_cast<ull>(read));
      return false;
  }
}

moved_blocks move_live_blocks(persistent_header_s* header) {
  char* const base = reinterpret_cast<char*>(header);
  moved_blocks at{persistent_header_bytes, persistent_header_bytes};
  persistent_block_s block;
  while (at.read < header->used_size && read_for_move(base, header->used_size, at.read, &block)) {
    if (block.id != persistent_deleted_id) {
      if (at.write != at.read) std::memmove(base + at.write, base + at.read, block.block_size);
      std::uint64_t& head = header->chain_heads[persistent_bucket_of(block.id)];
      block.next_offset = head;
      std::memcpy(base + at.write, &block, sizeof block);
      head = at.write;
      at.write += block.block_size;
    }
    at.read += block.block_size;
  }
  return at;
}

enum class saved_state { absent, incomplete, foreign, whole, unreadable };

// Reads a saved part and tells what it is good for. *bytes holds it when it is whole.
saved_state read_saved(const std::string& saved, std::uint64_t file_size,
                       std::unique_ptr<char[]>* bytes, persistent_header_s* header) {
  const platform::file_status status = platform::status_of(saved.c_str());
  if (!status.exists) return saved_state::absent;
  if (!status.regular) return saved_state::foreign;
  if (status.size < persistent_header_bytes + digest_bytes) return saved_state::incomplete;
  if (status.size - digest_bytes > file_size) return saved_state::foreign;
  bytes->reset(new (std::nothrow) char[status.size]);
  const int fd = platform::open_file(saved.c_str(), platform::open_mode::read_only);
  const bool read =
      *bytes != nullptr && fd >= 0 &&
      platform::read_at(fd, bytes->get(), status.size, 0) == static_cast<std::int64_t>(status.size);
  platform::close_file(fd);
  if (!read) return saved_state::unreadable;

  const std::uint64_t used = status.size - digest_bytes;
  XXH64_hash_t digest;
  std::memcpy(&digest, bytes->get() + used, sizeof digest);
  if (digest != XXH64(bytes->get(), used, 0)) return saved_state::incomplete;
  const bool ours = persistent_read_header(bytes->get(), used, file_size, header) ==
                        persistent_header_fault::none &&
                    header->used_size == used;
  return ours ? saved_state::whole : saved_state::foreign;
}

bool put_back(mmap_handle_t* file, const char* path, const char* bytes, std::uint64_t used) {
  if (!persistent_file_reserve(file, used, path)) return false;
  std::memcpy(file->data, bytes, used);
  return flush(file, path);
}

}  // namespace

bool persistent_file_reserve(mmap_handle_t* file, std::uint64_t upto_bytes, const char* path) {
  if (mapping_reserve(file, upto_bytes) == 0) return true;
  KORVEX_LOG("ftruncate failed for file %s: %s\n", path, platform::error_text(errno).c_str());
  return false;
}

bool persistent_file_reset(mmap_handle_t* file, const char* path) {
  if (!persistent_file_reserve(file, persistent_header_bytes, path)) return false;
  persistent_header_s* header = header_of(*file);
  std::memset(header, 0, sizeof *header);
  header->total_size = file->size;
  header->used_size = persistent_header_bytes;
  header->magic = persistent_magic;
  return flush(file, path);
}

bool persistent_file_validate(const mmap_handle_t& file) {
  using fault = persistent_header_fault;
  persistent_header_s header;
  const fault found = persistent_read_header(file.data, file.size, file.size, &header);
  if (found == fault::none) return true;
  if (found == fault::wrong_total)
    KORVEX_LOG("header size mismatch: header says %llu, actual file size is %llu\n",
               static_cast<ull>(header.total_size), static_cast<ull>(file.size));
  if (found == fault::used_too_big)
    KORVEX_LOG("used size exceeds total size: %llu > %llu\n", static_cast<ull>(header.used_size),
               static_cast<ull>(header.total_size));
  if (found == fault::used_too_small)
    KORVEX_LOG("used size too small: %llu < %llu\n", static_cast<ull>(header.used_size),
               static_cast<ull>(persistent_header_bytes));
  KORVEX_LOG("persistent memory file has invalid header\n");
  return false;
}

bool persistent_file_wants_compaction(const persistent_header_s& header) {
  if (header.deleted_blocks == 0) return false;
  const double ratio =
      static_cast<double>(header.deleted_bytes) / static_cast<double>(header.used_size);
  if (!(ratio > 0.2)) return false;
  KORVEX_LOG(
      "file has %llu deleted blocks taking %llu bytes (%.1f%% fragmentation). compacting...\n",
      static_cast<ull>(header.deleted_blocks), static_cast<ull>(header.deleted_bytes), ratio * 100);
  return true;
}

bool persistent_file_compact(mmap_handle_t* file, const char* path) {
  const std::string saved = saved_path(path);
  if (!save_used_part(*file, saved)) {
    KORVEX_LOG("compaction put off, failed to write %s: %s\n", saved.c_str(),
               platform::error_text(errno).c_str());
    return persistent_file_discard_saved(path);
  }
  persistent_header_s* header = header_of(*file);
  std::memset(header->chain_heads, 0, sizeof header->chain_heads);
  const moved_blocks moved = move_live_blocks(header);
  header->used_size = moved.write;
  header->deleted_blocks = 0;
  header->deleted_bytes = 0;
  if (!flush(file, path)) return false;
  KORVEX_LOG("Memory compaction complete. Reclaimed %llu bytes.\n",
             static_cast<ull>(moved.read - moved.write));
  return persistent_file_discard_saved(path);
}

bool persistent_file_recover(mmap_handle_t* file, const char* path) {
  const std::string saved = saved_path(path);
  std::unique_ptr<char[]> bytes;
  persistent_header_s header;
  switch (read_saved(saved, file->size, &bytes, &header)) {
    case saved_state::absent:
    case saved_state::foreign:
      return true;  // of a file of another length: not ours to judge
    case saved_state::incomplete:
      return persistent_file_discard_saved(path);
    case saved_state::unreadable:
      KORVEX_LOG("Failed to open file %s: %s\n", saved.c_str(),
                 platform::error_text(errno).c_str());
      return false;
    case saved_state::whole:
      break;
  }
  if (!put_back(file, path, bytes.get(), header.used_size)) return false;
  KORVEX_LOG("compaction was interrupted: %llu bytes put back from %s\n",
             static_cast<ull>(header.used_size), saved.c_str());
  return persistent_file_discard_saved(path);
}

bool persistent_file_discard_saved(const char* path) {
  const std::string saved = saved_path(path);
  if (!platform::status_of(saved.c_str()).regular) return true;  // never put back
  // Emptied before it is removed: after a power cut the name may be back, its old content must not. A file system that
  // is full or read-only may refuse one of the two.
  const int fd = platform::open_file(saved.c_str(), platform::open_mode::truncate);
  const bool emptied = fd >= 0 && platform::sync_file(fd) == 0;
  platform::close_file(fd);
  const bool removed = platform::remove_file(saved.c_str()) == 0;
  if (emptied || removed) return true;
  KORVEX_LOG("failed to remove %s: %s\n", saved.c_str(), platform::error_text(errno).c_str());
  return false;
}

}  // namespace korvex
