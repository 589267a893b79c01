#ifndef KORVEX_ENGINE_POINT_LINKING_H
#define KORVEX_ENGINE_POINT_LINKING_H

#include <cstdint>
#include <memory>

#include "engine/points.h"
#include "engine/runtime.h"
#include "engine/walk.h"
#include "storage/int_set.h"

// How one point gets its links, whoever does it: an indexing thread, the adding thread, or one that waits.
namespace korvex {

struct claimed_point {
  std::uint32_t id = 0;
  handover_s handover{};
  bool relinked = false;  // its first linking was cut off by a crash
};

inline bool indexing_is_stopping(const hnsw_s* hnsw) {
  return load_counter(hnsw->stop_indexing) != 0;
}

inline void count_networked(hnsw_s* hnsw) {
  std::atomic_ref(hnsw->networked).fetch_add(1);
}

// What the insertion left in the point's record. A missing record ends the process: the counters are
// wrong then, and going on would damage what is there.
handover_s read_handover(const korvex_runtime_s& runtime, std::uint32_t id);

// Seeds, and points that could not be handed over: they only count.
bool needs_no_linking(const hnsw_s* hnsw, const claimed_point& point);

// The scratch of one linking thread, for its whole life: linking allocates nothing per point.
class linker {
 public:
  explicit linker(hnsw_s* hnsw);
  ~linker();
  linker(const linker&) = delete;
  linker& operator=(const linker&) = delete;

  // False when memory is short.
  bool ready() const;
  // Walks from the entry; the key of the nearest candidate, or the largest float.
  float search(std::uint32_t id, std::uint32_t entry);
  // The point that the last one repeats, marked as a duplicate since then; 0 for none.
  std::uint32_t duplicate_of() const { return session_.duplicate; }
  // Whether it had been marked before, so that another one stands for it.
  bool duplicate_was_hidden() const { return session_.duplicate_was_hidden; }
  // Links the point with what the search found.
  void connect(std::uint32_t id);

 private:
  bool repeats(float key) const;

  hnsw_s* const hnsw_;
  korvex_runtime_s& runtime_;
  korvex_nbrs_s* candidates_ = nullptr;
  korvex_nbrs_s* second_ = nullptr;
  korvex_session_s session_{};
  int32find_s conmap_{};
};

// Links points from their hand-over; counts each whatever comes of it.
class point_linking {
 public:
  point_linking(hnsw_s* hnsw, linker* tools)
      : hnsw_(hnsw), runtime_(*hnsw->runtime), tools_(*tools) {}

  void link(const claimed_point& point);
  // For linking on the adding thread.
  void link_duplicates_too() { links_duplicates_ = true; }
  // The key of the last point's nearest candidate, or the largest float.
  float nearest_key() const { return nearest_key_; }

 private:
  bool leave_unlinked(const claimed_point& point);
  std::uint32_t entry_of(const claimed_point& point, std::uint32_t seed);
  std::uint32_t nearest_star(std::uint32_t id);

  hnsw_s* const hnsw_;
  korvex_runtime_s& runtime_;
  linker& tools_;
  std::unique_ptr<float[]> unit_;  // made when a vector is first needed with length 1
  bool links_duplicates_ = false;
  float nearest_key_ = largest_float;
};

}  // namespace korvex

#endif  // KORVEX_ENGINE_POINT_LINKING_H
