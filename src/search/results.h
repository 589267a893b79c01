#ifndef KORVEX_SEARCH_RESULTS_H
#define KORVEX_SEARCH_RESULTS_H

#include <cstdint>
#include <mutex>

#include "engine/neighbours.h"
#include "engine/record.h"
#include "korvex/korvex.h"
#include "storage/int_set.h"

namespace korvex {

// A set of ids that grows before it is full.
// Threads   one at a time.
class id_set {
 public:
  ~id_set();
  id_set() = default;
  id_set(const id_set&) = delete;
  id_set& operator=(const id_set&) = delete;

  std::uint32_t size() const { return count_; }
  // Room for `size` ids on first use. False when memory is short.
  bool add(std::uint32_t id, std::uint32_t size);
  bool contains(std::uint32_t id);
  void clear();

 private:
  bool grow(std::uint32_t size);
  int32find_s set_{};
  std::uint32_t* ids_ = nullptr;  // the members, for growing
  std::uint32_t count_ = 0;
};

// Results in the order nearest first: public ids and raw distances.
struct result_set {
  std::uint32_t count;
  std::uint32_t* ids;
  float* distances;
};

// What one probe found: what was delivered, and a reserve behind it.
struct result_slice {
  result_set primary;
  result_set secondary;
  std::uint32_t cursor;  // how much of primary the merge passed on
  bool delivered;        // something of this slice was delivered since the last new search
  float delivered_key;   // key of the farthest of it
};

// The results of a session: one block, the arrays behind the header. With one probe the final set
// is the slice's own.
// Threads   `lock` guards the copy; a slice belongs to the job of its probe, the rest to the job
//           that finishes last.
struct korvex_search_results_s {
  std::uint32_t capacity;  // the largest k, never below 10
  std::uint32_t probes;    // slices
  float direction;
  std::mutex lock;
  result_slice slices[max_probes];
  korvex_results_s final;
  korvex_results_s final_secondary;
  korvex_results_s copy;
  std::uint32_t heap[max_probes];
};
inline constexpr std::size_t results_header_bytes = 1280;
static_assert(sizeof(korvex_search_results_s) <= results_header_bytes);

// A store for `capacity` results of `probes` slices, or null.
korvex_search_results_s* results_create(std::uint32_t capacity, std::uint32_t probes);
void results_destroy(korvex_search_results_s* store);
// Before a new search: all sets empty.
void results_clear(korvex_search_results_s* store, float direction);

// The k nearest of all slices into the final set, by a heap over their cursors. Equal keys keep the
// order of probes. Nothing is compared by id: the probes' graphs have no point in common.
int korvex_merge_results(korvex_search_results_s* store, std::uint32_t probes, int k);
void heapify(std::uint32_t* heap, std::uint32_t size, std::uint32_t position,
             const korvex_search_results_s& store);

// Moves what the merge did not pass on to the front of each slice's reserve, and adds the internal
// ids of what was delivered to `delivered`.
void results_settle(korvex_search_results_s* store, id_set* delivered);

}  // namespace korvex

#endif  // KORVEX_SEARCH_RESULTS_H
