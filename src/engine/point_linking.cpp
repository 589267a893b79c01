#include "engine/point_linking.h"

#include <algorithm>
#include <cstdlib>
#include <new>

#include "engine/linking.h"
#include "engine/neighbours.h"
#include "runtime/log.h"

namespace korvex {

namespace {

constexpr unsigned visited_bits = 1'000'000;

}  // namespace

handover_s read_handover(const korvex_runtime_s& runtime, std::uint32_t id) {
  const graph_record graph = graph_of(runtime, id);
  if (!graph) {
    KORVEX_LOG_CRITICAL("get graph failed for id: %u\n", id);
    log_wait_empty();
    std::abort();
  }
  return {graph.slot(0), graph.slot(1), graph.slot(2), graph.slot(3)};
}

bool needs_no_linking(const hnsw_s* hnsw, const claimed_point& point) {
  return point.handover.marker == seed_marker || point.handover.marker == unlinkable_marker ||
         is_seed(hnsw, point.id);
}

linker::linker(hnsw_s* hnsw) : hnsw_(hnsw), runtime_(*hnsw->runtime) {
  const int beam = std::max(runtime_.construction_beam, 100);
  candidates_ = korvex_nbrs_alloc(hnsw, 2 * beam);
  second_ = korvex_nbrs_alloc(hnsw, static_cast<int>(2 * runtime_.neighbour_count));
  session_.visited = bitstore_init(visited_bits);
  session_.beam = beam;
  int32find_init(&conmap_, static_cast<int>(std::max(1024u, 4 * runtime_.neighbour_count)),
                 "conmap");
}

linker::~linker() {
  korvex_nbrs_free(candidates_);
  korvex_nbrs_free(second_);
  if (session_.visited != nullptr) bitstore_free(session_.visited);
  int32find_free(&conmap_);
}

bool linker::ready() const {
  return candidates_ != nullptr && second_ != nullptr && session_.visited != nullptr &&
         conmap_.capacity != 0;
}

float linker::search(std::uint32_t id, std::uint32_t entry) {
  const float* const vector = vector_of(runtime_, id);
  korvex_nbrs_reset(hnsw_, candidates_);
  korvex_nbrs_reset(hnsw_, second_);
  bitstore_reset(session_.visited);
  session_.mode = 0;
  session_.duplicate = 0;
  if (vector == nullptr) {
    KORVEX_LOG("*** BUG *** null buffer for id: %u\n", id);
    return largest_float;
  }
  const korvex_node_s node{id, vector};
  korvex_search_candidates(hnsw_, &session_, candidates_, &node, entry, nullptr);
  const auto* const first =
      static_cast<const korvex_nelem_s*>(candidates_->candidates->peek_front());
  if (first == nullptr) return largest_float;
  // The walk tells of an entry that the point repeats; further on it only stops.
  if (session_.duplicate == 0 && repeats(first->distance)) {
    session_.duplicate = first->id;
    session_.duplicate_was_hidden =
        (set_flags(runtime_, first->id, flag_duplicate) & flag_duplicate) != 0;
  }
  return first->distance;
}

void linker::connect(std::uint32_t id) {
  int32find_reset(&conmap_);
  korvex_connect_nbrs(hnsw_, candidates_, second_, id, &conmap_);
}

bool linker::repeats(float key) const {
  return hnsw_->duplicate_mode != 0 && hnsw_->duplicate_option != 0 &&
         hnsw_->duplicate_threshold != threshold_off &&
         key <= runtime_.direction.load(std::memory_order_relaxed) * hnsw_->duplicate_threshold;
}

void point_linking::link(const claimed_point& point) {
  const std::uint32_t seed = probe_seed(hnsw_, probe_of(hnsw_, point.id));
  const std::uint32_t entry = entry_of(point, seed);
  if (entry != 0 && entry != point.id) {
    nearest_key_ = tools_.search(point.id, entry);
    if (indexing_is_stopping(hnsw_)) return;
    const bool repeats = tools_.duplicate_of() != 0 && point.id > runtime_.probe_count;
    if (!repeats || !leave_unlinked(point)) tools_.connect(point.id);
    if (indexing_is_stopping(hnsw_)) return;
  }
  count_networked(hnsw_);
}

std::uint32_t point_linking::entry_of(const claimed_point& point, std::uint32_t seed) {
  std::uint32_t entry = point.handover.entry;
  if (entry == 0 && point.relinked) {
    entry = nearest_star(point.id);
    if (entry == 0) return seed;
  }
  if (entry != 0) return usable_entry(hnsw_, entry, seed);
  KORVEX_LOG("*** BUG *** ep_id not passed to thread: nid %u l %p\n", point.id,
             graph_of(runtime_, point.id).address());
  return 0;
}

// Where the walk of a point starts whose addition is forgotten; 0 when its hash does not tell.
std::uint32_t point_linking::nearest_star(std::uint32_t id) {
  vector_hash_node_s query;
  query.query = vector_of(runtime_, id);
  if (unit_ == nullptr) unit_.reset(new (std::nothrow) float[runtime_.dimension]);
  if (unit_ == nullptr || query.query == nullptr) return 0;
  normalize_vector(query.query, unit_.get(), runtime_.dimension);
  query.vector = unit_.get();
  vector_hash_node_s answer;
  vector_hash_search(runtime_.hash[probe_of(hnsw_, id)], &query, &answer);
  return answer.id == id ? 0 : answer.id;
}

// Of a point and its copies one stays visible. The original is marked by now: the mark moves to
// the copy, which is not linked then; inline linking, and a copy of a deleted point, leave it. An
// original that had been hidden before has somebody else to stand for both.
bool point_linking::leave_unlinked(const claimed_point& point) {
  const std::uint32_t id = point.id;
  const std::uint32_t original = tools_.duplicate_of();
  const bool hidden = tools_.duplicate_was_hidden();
  // The crash may have come between marking the original and moving the mark: nobody else is
  // sure to stand for both.
  if (hidden && point.relinked) return false;
  const bool deleted = korvex_is_flag_set_internal(hnsw_, original, flag_deleted) != 0;
  if (!hidden && (links_duplicates_ || deleted)) return false;
  // In this order: were both marked when the process is killed, nobody would stand for them.
  if (!hidden) clear_flags(runtime_, original, flag_duplicate);
  set_flags(runtime_, id, flag_duplicate);
  if (links_duplicates_) return false;
  std::atomic_ref(hnsw_->duplicates).fetch_add(1);
  return true;
}

}  // namespace korvex
