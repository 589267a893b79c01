#ifndef KORVEX_STORAGE_BLOOM_FILTER_H
#define KORVEX_STORAGE_BLOOM_FILTER_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "storage/vector_store.h"

namespace korvex {

inline constexpr std::uint32_t sbf_max_units = 32;
// A unit's bytes are a power of two between these; part of the file names.
inline constexpr std::uint32_t sbf_min_unit_bytes = 1U << 6;
inline constexpr std::uint32_t sbf_max_unit_bytes = 1U << 30;

// How items are spread over the bits of a unit. Part of the file format.
struct sbf_parameters_s {
  std::uint32_t hashes;     // bits that an item sets in a unit, at most 64
  std::uint32_t bits;       // per unit
  std::uint32_t words;      // per unit, of 64 bits
  std::uint32_t max_items;  // per unit; the next item goes to a new one
};

// The head of a pool item; the bit array (words x 8 bytes) follows. Part of the file format.
struct sbf_unit_s {
  std::uint32_t magic;
  std::uint32_t version;
  std::uint32_t id;
  std::uint32_t items;          // in this unit; the base unit counts those of the whole filter
  sbf_parameters_s parameters;  // of the base unit, zero in the others
};
static_assert(sizeof(sbf_unit_s) == 32, "the bit array begins at byte 32 of the stored item");

struct sbf_sizing_s {
  sbf_parameters_s parameters;
  std::uint32_t unit_bytes;  // a power of two, at most 2^30
};

// A Bloom filter over byte strings that grows by whole units and lives in a vector pool, so that a
// persistent pool brings it back.
// Threads     one adder at a time; sbf_exists may run beside it.
// Ownership   the filter owns its pool.
// Invariant   item 0 is the base unit, items 1 to 32 the data units in the order of their making.
struct scalable_bloom_filters_s {
  vectpool_c* pool = nullptr;
  sbf_parameters_s parameters{};
  sbf_unit_s* base = nullptr;
  sbf_unit_s* current = nullptr;
  sbf_unit_s* units[sbf_max_units] = {};
  std::atomic<std::uint32_t> unit_count{0};  // released after units[count - 1] is complete
  bool spare_made = false;  // the unit beyond the last one was allocated: never again
};

// The geometry for a wish. An error rate or fill ratio outside (0, 1) becomes 0.001 or 0.75, k 0 is
// derived from the error rate, the capacity is taken as at least 1,000,000.
sbf_sizing_s sbf_size(std::uint32_t capacity, double error_rate, double fill_ratio,
                      std::uint32_t k);

// What a stored item is worth. `blank` is a unit whose making was cut off before its head was
// written.
enum class sbf_item_state { good, blank, corrupted };
// Reads unit_bytes bytes. *out is written for a good base unit; its values are safe to index with.
sbf_item_state sbf_check_base(const void* item, std::uint32_t unit_bytes, sbf_parameters_s* out);
sbf_item_state sbf_check_unit(const void* item, std::uint32_t unit_bytes);

// Makes a filter or finds the one that the configuration's directory holds, whose geometry then
// wins over the arguments. `kind` is the pool's. Null when memory or disk ran out or the stored
// filter is damaged, with a line in the log.
scalable_bloom_filters_s* sbf_create(std::uint32_t capacity, double error_rate, double fill_ratio,
                                     std::uint32_t k, vectpool_conf_s* configuration, int kind);
// Syncs and releases the filter. Null is allowed.
void sbf_destroy(scalable_bloom_filters_s* filter);

// 1 when the item was added, 0 when it could not be: all 32 units are full or memory ran out.
int sbf_add(scalable_bloom_filters_s* filter, const void* data, std::size_t length);
// Whether the item may have been added; false is certain.
bool sbf_exists(const scalable_bloom_filters_s* filter, const void* data, std::size_t length);

double sbf_false_positive_rate(const scalable_bloom_filters_s* filter);
std::uint32_t sbf_count(const scalable_bloom_filters_s* filter);
void sbf_sync(scalable_bloom_filters_s* filter);

}  // namespace korvex

#endif  // KORVEX_STORAGE_BLOOM_FILTER_H
