#ifndef KORVEX_STORAGE_BIT_STORE_H
#define KORVEX_STORAGE_BIT_STORE_H

#include <cstdint>

namespace korvex {

inline constexpr std::uint32_t bitstore_direct_ids = 1'000'000;
inline constexpr std::uint32_t bitstore_recent_slots = 8;  // a power of two

struct bitstore_segment_s {
  std::uint64_t* words;   // null until a bit of the segment is set
  std::uint16_t* stamps;  // a word is valid only while its stamp equals the generation
};

// Growable bitmap over the whole 32-bit id space; emptied in constant time by a new generation.
// Threads     one thread at a time.
// Invariant   segment 0 always has its words, and holds every id up to bitstore_direct_ids.
struct bitstore_s {
  std::uint32_t recent_segments[bitstore_recent_slots];  // direct-mapped cache of the segment
                                                         // table; ~0: empty slot
  bitstore_segment_s* recent_entries[bitstore_recent_slots];
  std::uint16_t generation;  // never 0
  std::uint32_t segment_count;
  std::uint32_t segment_bits;  // a power of two
  std::uint32_t segment_shift;
  std::uint32_t word_mask;
  bitstore_segment_s* segments;
  bitstore_segment_s first;  // copy of segments[0], one load less on the common path
};

// size: expected ids. Null when memory is short.
bitstore_s* bitstore_init(unsigned size);
void bitstore_reset(bitstore_s* b);
void bitstore_free(bitstore_s* b);
// 1 when the segment has its words (made now if need be), 0 when memory is short or no id can lie
// in it.
int bitstore_check_allocation(bitstore_s* b, std::uint32_t segment);

int bitstore_is_set(const bitstore_s* b, std::uint32_t id);
// Whether the bit had been set.
int bitstore_clear(bitstore_s* b, std::uint32_t id);

namespace detail {

// The entry of the segment of an id above bitstore_direct_ids, made ready; null when memory is
// short.
const bitstore_segment_s* bitstore_find_segment(bitstore_s* b, std::uint32_t segment);

inline int bitstore_set_in(const bitstore_segment_s& segment, std::uint32_t word, std::uint64_t bit,
                           std::uint16_t generation) {
  // Without a branch: whether a word is of this generation cannot be foreseen.
  const std::uint64_t valid = std::uint64_t{0} - std::uint64_t{segment.stamps[word] == generation};
  const std::uint64_t before = segment.words[word] & valid;
  segment.stamps[word] = generation;
  segment.words[word] = before | bit;
  return (before & bit) != 0;
}

}  // namespace detail

// 1 if the bit was already set; 0 if it was set now or memory ran out.
inline int bitstore_set(bitstore_s* b, std::uint32_t id) {
  const std::uint32_t word = (id >> 6) & b->word_mask;
  const std::uint64_t bit = std::uint64_t{1} << (id & 63);
  if (id <= bitstore_direct_ids) [[likely]]
    return detail::bitstore_set_in(b->first, word, bit, b->generation);
  const bitstore_segment_s* segment = detail::bitstore_find_segment(b, id >> b->segment_shift);
  return segment == nullptr ? 0 : detail::bitstore_set_in(*segment, word, bit, b->generation);
}

// Brings the words of an id close ahead of bitstore_set. Ids above bitstore_direct_ids are left
// alone.
inline void bitstore_prefetch(const bitstore_s* b, std::uint32_t id) {
  if (id > bitstore_direct_ids) return;
  __builtin_prefetch(b->first.stamps + (id >> 6));
  __builtin_prefetch(b->first.words + (id >> 6), 1);
}

}  // namespace korvex

#endif  // KORVEX_STORAGE_BIT_STORE_H
