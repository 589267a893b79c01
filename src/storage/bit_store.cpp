#include "storage/bit_store.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <new>

#include "runtime/platform/memory.h"

namespace korvex {

namespace {

constexpr std::uint32_t no_segment = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t first_segments = 32;
constexpr std::size_t cache_line = 64;

void* zeroed(std::size_t bytes) {
  void* data = platform::aligned_malloc(bytes, cache_line);
  if (data != nullptr) std::memset(data, 0, bytes);
  return data;
}

std::size_t words_bytes(const bitstore_s* b) {
  return b->segment_bits / 8;
}
std::size_t stamps_bytes(const bitstore_s* b) {
  return b->segment_bits / 64 * sizeof(std::uint16_t);
}

bool grow_table(bitstore_s* b, std::uint32_t segment) {
  const std::uint32_t count = std::bit_ceil(segment + 1);
  auto* grown = static_cast<bitstore_segment_s*>(zeroed(count * sizeof(bitstore_segment_s)));
  if (grown == nullptr) return false;
  std::copy_n(b->segments, b->segment_count, grown);
  platform::aligned_free(b->segments);
  b->segments = grown;
  b->segment_count = count;
  // The cache holds positions in the old table.
  std::fill_n(b->recent_segments, bitstore_recent_slots, no_segment);
  return true;
}

bool fill_segment(bitstore_s* b, bitstore_segment_s* segment) {
  void* words = zeroed(words_bytes(b));
  void* stamps = zeroed(stamps_bytes(b));
  if (words == nullptr || stamps == nullptr) {
    platform::aligned_free(words);
    platform::aligned_free(stamps);
    return false;
  }
  *segment = {static_cast<std::uint64_t*>(words), static_cast<std::uint16_t*>(stamps)};
  return true;
}

// The id's word; null when it reads as zero.
std::uint64_t* valid_word(const bitstore_s* b, std::uint32_t id) {
  const std::uint32_t segment = id >> b->segment_shift;
  const std::uint32_t word = (id >> 6) & b->word_mask;
  if (segment >= b->segment_count) return nullptr;
  const bitstore_segment_s& entry = b->segments[segment];
  if (entry.words == nullptr || entry.stamps[word] != b->generation) return nullptr;
  return &entry.words[word];
}

}  // namespace

bitstore_s* bitstore_init(unsigned size) {
  auto* b = new (std::nothrow) bitstore_s{};
  if (b == nullptr) return nullptr;
  std::fill_n(b->recent_segments, bitstore_recent_slots, no_segment);
  b->generation = 1;
  b->segment_bits = std::bit_ceil(std::clamp(size, bitstore_direct_ids, 1U << 31));
  b->segment_shift = static_cast<std::uint32_t>(std::countr_zero(b->segment_bits));
  b->word_mask = b->segment_bits / 64 - 1;
  b->segments =
      static_cast<bitstore_segment_s*>(zeroed(first_segments * sizeof(bitstore_segment_s)));
  b->segment_count = b->segments != nullptr ? first_segments : 0;
  if (b->segments == nullptr || bitstore_check_allocation(b, 0) == 0) {
    bitstore_free(b);
    return nullptr;
  }
  b->first = b->segments[0];
  return b;
}

void bitstore_reset(bitstore_s* b) {
  if (++b->generation != 0) return;
  // Stamps of 65,535 resets ago would count as current again.
  for (std::uint32_t i = 0; i < b->segment_count; i++) {
    if (b->segments[i].words == nullptr) continue;
    std::memset(b->segments[i].words, 0, words_bytes(b));
    std::memset(b->segments[i].stamps, 0, stamps_bytes(b));
  }
  b->generation = 1;
}

void bitstore_free(bitstore_s* b) {
  if (b == nullptr) return;
  for (std::uint32_t i = 0; i < b->segment_count; i++) {
    platform::aligned_free(b->segments[i].words);
    platform::aligned_free(b->segments[i].stamps);
  }
  platform::aligned_free(b->segments);
  delete b;
}

int bitstore_check_allocation(bitstore_s* b, std::uint32_t segment) {
  if (segment > no_segment >> b->segment_shift) return 0;
  if (segment >= b->segment_count && !grow_table(b, segment)) return 0;
  bitstore_segment_s* entry = &b->segments[segment];
  return entry->words != nullptr || fill_segment(b, entry);
}

const bitstore_segment_s* detail::bitstore_find_segment(bitstore_s* b, std::uint32_t segment) {
  const std::uint32_t slot = segment & (bitstore_recent_slots - 1);
  if (b->recent_segments[slot] == segment) return b->recent_entries[slot];
  if (bitstore_check_allocation(b, segment) == 0) return nullptr;
  b->recent_segments[slot] = segment;
  b->recent_entries[slot] = &b->segments[segment];
  return b->recent_entries[slot];
}

int bitstore_is_set(const bitstore_s* b, std::uint32_t id) {
  const std::uint64_t* word = valid_word(b, id);
  return word != nullptr && ((*word >> (id & 63)) & 1) != 0;
}

int bitstore_clear(bitstore_s* b, std::uint32_t id) {
  std::uint64_t* word = valid_word(b, id);
  const std::uint64_t bit = std::uint64_t{1} << (id & 63);
  if (word == nullptr || (*word & bit) == 0) return 0;
  *word &= ~bit;
  return 1;
}

}  // namespace korvex
