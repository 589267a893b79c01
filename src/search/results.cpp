#include "search/results.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace korvex {

id_set::~id_set() {
  int32find_free(&set_);
  std::free(ids_);
}

bool id_set::grow(std::uint32_t size) {
  int32find_s larger{};
  int32find_init(&larger, static_cast<int>(std::min<std::uint32_t>(size, 1u << 29)), "results");
  // A set without a table has no room at all, and a resize to nothing would free the members.
  const bool made = larger.capacity != 0 && larger.capacity >= size / 2;
  void* const ids = made ? std::realloc(ids_, sizeof(std::uint32_t) * larger.capacity) : nullptr;
  if (ids == nullptr) {
    int32find_free(&larger);
    return false;
  }
  ids_ = static_cast<std::uint32_t*>(ids);
  for (std::uint32_t i = 0; i < count_; ++i) int32find_set(&larger, ids_[i], 1);
  int32find_free(&set_);
  set_ = larger;
  return true;
}

bool id_set::add(std::uint32_t id, std::uint32_t size) {
  if (set_.initialised == 0 && !grow(std::max(size, 16u))) return false;
  if (int32find_get(&set_, id) != 0) return true;
  if (count_ + 1 > set_.capacity / 4 * 3 && !grow(set_.capacity * 2)) return false;
  int32find_set(&set_, id, 1);
  ids_[count_++] = id;
  return true;
}

bool id_set::contains(std::uint32_t id) {
  return count_ != 0 && int32find_get(&set_, id) != 0;
}

void id_set::clear() {
  if (set_.initialised != 0) int32find_reset(&set_);
  count_ = 0;
}

namespace {

// One share: ids and distances of a primary and a secondary set.
constexpr std::size_t share_bytes = 4 * sizeof(std::uint32_t);

void place_sets(std::byte* share, std::uint32_t capacity, result_set* primary,
                result_set* secondary) {
  auto* const words = reinterpret_cast<std::uint32_t*>(share);
  *primary = {0, words, reinterpret_cast<float*>(words + capacity)};
  *secondary = {0, words + 2 * std::size_t{capacity},
                reinterpret_cast<float*>(words + 3 * std::size_t{capacity})};
}

float key_at_cursor(const korvex_search_results_s& store, std::uint32_t slice) {
  const result_slice& entry = store.slices[slice];
  return store.direction * entry.primary.distances[entry.cursor];
}

// Graphs of probes share no point; in a damaged index they may. Its distance is the same from everywhere.
bool taken(const korvex_results_s& results, std::uint32_t id, float distance) {
  constexpr std::uint32_t most_ties = 64;
  for (std::uint32_t i = 0; i < std::min(results.count, most_ties); ++i) {
    const std::uint32_t position = results.count - 1 - i;
    if (results.distances[position] != distance) return false;
    if (results.ids[position] == id) return true;
  }
  return false;
}

void append(korvex_results_s* results, const result_set& from, std::uint32_t position) {
  results->ids[results->count] = from.ids[position];
  results->distances[results->count++] = from.distances[position];
}

}  // namespace

korvex_search_results_s* results_create(std::uint32_t capacity, std::uint32_t probes) {
  const std::size_t shares = probes < 2 ? probes : probes + 1;
  void* const block = std::calloc(1, results_header_bytes + shares * capacity * share_bytes);
  if (block == nullptr) return nullptr;
  auto* const store = new (block) korvex_search_results_s{};
  store->capacity = capacity;
  store->probes = probes;
  store->direction = 1.0f;
  std::byte* share = static_cast<std::byte*>(block) + results_header_bytes;
  for (std::uint32_t slice = 0; slice < probes; ++slice, share += capacity * share_bytes)
    place_sets(share, capacity, &store->slices[slice].primary, &store->slices[slice].secondary);
  result_set primary = store->slices[0].primary;
  result_set secondary = store->slices[0].secondary;
  if (probes > 1) place_sets(share, capacity, &primary, &secondary);
  store->final.ids = primary.ids;
  store->final.distances = primary.distances;
  store->final_secondary.ids = secondary.ids;
  store->final_secondary.distances = secondary.distances;
  return store;
}

void results_destroy(korvex_search_results_s* store) {
  if (store == nullptr) return;
  std::free(store->copy.ids);
  std::free(store->copy.distances);
  store->~korvex_search_results_s();
  std::free(store);
}

void results_clear(korvex_search_results_s* store, float direction) {
  store->direction = direction;
  for (result_slice& slice : store->slices) {
    slice.delivered = false;
    slice.cursor = 0;
    slice.primary.count = 0;
    slice.secondary.count = 0;
  }
}

void heapify(std::uint32_t* heap, std::uint32_t size, std::uint32_t position,
             const korvex_search_results_s& store) {
  while (true) {
    const std::uint32_t left = 2 * position + 1;
    const std::uint32_t right = left + 1;
    std::uint32_t best = position;
    if (left < size && key_at_cursor(store, heap[left]) < key_at_cursor(store, heap[best]))
      best = left;
    if (right < size && key_at_cursor(store, heap[right]) < key_at_cursor(store, heap[best]))
      best = right;
    if (best == position) return;
    std::swap(heap[position], heap[best]);
    position = best;
  }
}

int korvex_merge_results(korvex_search_results_s* store, std::uint32_t probes, int k) {
  if (probes < 1 || k < 1) return 0;
  const auto wanted = std::min(static_cast<std::uint32_t>(k), store->capacity);
  if (probes == 1) {
    result_slice& slice = store->slices[0];
    const std::uint32_t count = std::min(wanted, slice.primary.count);
    if (store->final.ids != slice.primary.ids) {
      std::copy_n(slice.primary.ids, count, store->final.ids);
      std::copy_n(slice.primary.distances, count, store->final.distances);
    }
    store->final.count = count;
    slice.cursor = count;
    return 0;
  }
  store->final.count = 0;
  std::uint32_t size = 0;
  for (std::uint32_t i = 0; i < probes; ++i) {
    store->slices[i].cursor = 0;
    if (store->slices[i].primary.count > 0) store->heap[size++] = i;
  }
  for (std::uint32_t i = size / 2; i-- > 0;) heapify(store->heap, size, i, *store);
  while (size > 0 && store->final.count < wanted) {
    result_slice& nearest = store->slices[store->heap[0]];
    const std::uint32_t position = nearest.cursor++;
    if (!taken(store->final, nearest.primary.ids[position], nearest.primary.distances[position]))
      append(&store->final, nearest.primary, position);
    if (nearest.cursor == nearest.primary.count) store->heap[0] = store->heap[--size];
    heapify(store->heap, size, 0, *store);
  }
  return 0;
}

void results_settle(korvex_search_results_s* store, id_set* delivered) {
  for (std::uint32_t i = 0; i < store->probes; ++i) {
    result_slice& slice = store->slices[i];
    result_set& primary = slice.primary;
    result_set& secondary = slice.secondary;
    const std::uint32_t rest = primary.count - std::min(slice.cursor, primary.count);
    const std::uint32_t kept = std::min(secondary.count, store->capacity - rest);
    std::memmove(secondary.ids + rest, secondary.ids, kept * sizeof(std::uint32_t));
    std::memmove(secondary.distances + rest, secondary.distances, kept * sizeof(float));
    std::copy_n(primary.ids + primary.count - rest, rest, secondary.ids);
    std::copy_n(primary.distances + primary.count - rest, rest, secondary.distances);
    secondary.count = rest + kept;
    primary.count -= rest;
    if (primary.count == 0) continue;
    slice.delivered = true;
    slice.delivered_key = store->direction * primary.distances[primary.count - 1];
    for (std::uint32_t j = 0; j < primary.count; ++j)
      delivered->add(primary.ids[j] + 1, 4 * store->capacity);
  }
}

}  // namespace korvex
