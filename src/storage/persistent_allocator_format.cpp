#include "storage/persistent_allocator_format.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace korvex {

static_assert(std::endian::native == std::endian::little, "the file's words are read as they are");

persistent_header_fault persistent_read_header(const void* file, std::uint64_t available,
                                               std::uint64_t file_size,
                                               persistent_header_s* header) {
  using fault = persistent_header_fault;
  if (available < persistent_header_bytes) return fault::truncated;
  std::memcpy(header, file, sizeof *header);
  if (header->magic != persistent_magic) return fault::wrong_magic;
  if (header->total_size != file_size) return fault::wrong_total;
  if (header->used_size > header->total_size) return fault::used_too_big;
  if (header->used_size < persistent_header_bytes) return fault::used_too_small;
  if ((header->used_size - persistent_header_bytes) % persistent_block_unit != 0)
    return fault::used_misaligned;
  return fault::none;
}

bool persistent_is_block_offset(std::uint64_t offset, std::uint64_t used_size) {
  return offset >= persistent_header_bytes && offset <= used_size &&
         used_size - offset >= persistent_block_header_bytes &&
         (offset - persistent_header_bytes) % persistent_block_unit == 0;
}

persistent_block_fault persistent_read_block(const void* file, std::uint64_t used_size,
                                             std::uint64_t offset, persistent_block_s* block) {
  using fault = persistent_block_fault;
  if (!persistent_is_block_offset(offset, used_size)) return fault::bad_offset;
  std::memcpy(block, static_cast<const char*>(file) + offset, sizeof *block);
  if (block->magic != persistent_magic) return fault::bad_header;
  const bool right_size = block->block_size == persistent_block_bytes(block->requested_size) &&
                          block->block_size != 0 && block->block_size <= used_size - offset;
  return right_size ? fault::none : fault::bad_size;
}

void persistent_block_places::learn(const void* file, std::uint64_t used_size) {
  while (learned_ < used_size) {
    persistent_block_s block;
    const auto fault = persistent_read_block(file, used_size, learned_, &block);
    if (fault == persistent_block_fault::none) offsets_.push_back(learned_);
    if (fault == persistent_block_fault::bad_size) misfits_.push_back(learned_);
    learned_ += fault == persistent_block_fault::none ? block.block_size : persistent_block_unit;
  }
}

bool persistent_block_places::contain(std::uint64_t offset) const {
  return std::binary_search(offsets_.begin(), offsets_.end(), offset);
}

}  // namespace korvex
