#include "search/direct.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

#include "engine/distances.h"
#include "engine/indexing.h"
#include "engine/insertion.h"
#include "engine/scoring.h"
#include "engine/startup.h"
#include "engine/walk.h"
#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "search/direct_selection.h"
#include "storage/vector_hash.h"

namespace korvex {

namespace {

constexpr unsigned visited_bits = 1'000'000;
constexpr std::uint32_t no_id = 0xFFFFFFFFu;
constexpr std::int64_t max_candidates = 1 << 24;
constexpr std::uint32_t scan_batch = 16;
constexpr std::uint64_t never = ~std::uint64_t{0};

// What a walk costs, in distance evaluations of a scan, which reads the memory in order: it hops
// about for a few points for each candidate that it keeps, and moves half of its sorted candidates
// for each that comes in. Measured by bench/direct/filters.
constexpr double cost_of_candidate = 52;
constexpr double cost_of_candidate_squared = 0.002;

// Of a star array; a walk makes up for a poorer entry point with less than the others cost.
constexpr std::uint32_t fewest_stars = 16;

struct bitstore_deleter {
  void operator()(bitstore_s* bits) const { bitstore_free(bits); }
};

// The scratch of one call; kept by the index between calls.
struct direct_scratch {
  std::unique_ptr<bitstore_s, bitstore_deleter> visited{bitstore_init(visited_bits)};
  std::unique_ptr<bitstore_s, bitstore_deleter> allowed{bitstore_init(visited_bits)};
  walk_beam beam;
  walk_beam nearest;  // of all probes, at most k + 1
  std::unique_ptr<float[]> query;
  std::unique_ptr<float[]> unit;
  float magnitude = 0;  // of the query
};

std::shared_ptr<direct_scratch> take_scratch(korvex_runtime_s& runtime) {
  {
    std::lock_guard lock(runtime.scratch_lock);
    if (!runtime.idle_scratch.empty()) {
      auto scratch = std::static_pointer_cast<direct_scratch>(runtime.idle_scratch.back());
      runtime.idle_scratch.pop_back();
      return scratch;
    }
  }
  auto scratch = std::make_shared<direct_scratch>();
  scratch->query.reset(new float[runtime.dimension]);
  scratch->unit.reset(new float[runtime.dimension]);
  return scratch->visited && scratch->allowed ? scratch : nullptr;
}

void give_back(korvex_runtime_s& runtime, std::shared_ptr<direct_scratch> scratch) {
  std::lock_guard lock(runtime.scratch_lock);
  runtime.idle_scratch.push_back(std::move(scratch));
}

// The queries of one call, one after another.
class direct_query {
 public:
  direct_query(hnsw_s* hnsw, direct_scratch* scratch, direct_selection& allowed, std::uint32_t ef,
               std::uint32_t k, std::uint64_t end_ns, direct_way way)
      : hnsw_(hnsw),
        runtime_(*hnsw->runtime),
        scratch_(*scratch),
        allowed_(allowed),
        ef_(ef),
        k_(k),
        end_ns_(end_ns),
        way_(way) {}

  // False when memory is short. Otherwise the answer is in the scratch's `nearest`, and in_time()
  // tells whether it is whole.
  bool run(const float* query) {
    prepare(query);
    if (!scratch_.nearest.reset(k_ + 1)) return false;
    cut_off_ = late();
    if (cut_off_ || allowed_.points() == 0) return true;
    double beam = std::min(ef_ / allowed_.share(), allowed_.points() + 1.0);
    for (; walk_is_cheaper(beam); beam = std::min(4 * beam, allowed_.points() + 1.0)) {
      scratch_.nearest.reset(k_ + 1);
      bool whole = false;
      if (!walk_probes(static_cast<std::uint32_t>(beam), &whole)) return false;
      if (whole || beam > allowed_.points()) return scan_unless_complete();
    }
    scratch_.nearest.reset(k_ + 1);
    scan();
    return true;
  }
  bool in_time() const { return !cut_off_; }

 private:
  void prepare(const float* query) {
    std::memcpy(scratch_.query.get(), query, runtime_.vector_bytes);
    korvex_expand_vector(hnsw_, scratch_.query.get());
    if (hnsw_->normalize != 0)
      normalize_vector(scratch_.query.get(), scratch_.query.get(), runtime_.dimension);
    scratch_.magnitude =
        normalize_vector(scratch_.query.get(), scratch_.unit.get(), runtime_.dimension);
  }

  // Past the deadline, or the index is being given up.
  bool late() const {
    return load_counter(hnsw_->stop_searching) != 0 ||
           (end_ns_ != never && platform::monotonic_ns() >= end_ns_);
  }

  std::uint32_t probes() const {
    return std::min(load_counter(hnsw_->probes_made), runtime_.probe_count);
  }
  bool walk_is_cheaper(double beam) const {
    if (way_ == direct_way::cheaper && allowed_.share() == 1.0)
      return true;  // not asked to restrict
    return way_ == direct_way::cheaper ? walk_cost(beam) < scan_cost() : way_ == direct_way::walk;
  }
  double walk_cost(double beam) const {
    return probes() * beam * (cost_of_candidate + cost_of_candidate_squared * beam);
  }
  double scan_cost() const { return allowed_.asking_cost() + allowed_.share() * allowed_.points(); }

  // *whole: the answers lie well inside of what the walks kept. Where the allowed points are rarer
  // than elsewhere they do not, and the best of them may have been missed.
  bool walk_probes(std::uint32_t beam, bool* whole) {
    shared_bound_s shared{largest_float};
    *whole = true;
    for (std::uint32_t probe = 0; probe < probes(); ++probe)
      if (!walk(probe, beam, probes() > 1 ? &shared : nullptr, whole)) return false;
    return true;
  }

  bool walk(std::uint32_t probe, std::uint32_t beam, shared_bound_s* shared, bool* whole) {
    walk_beam& found = scratch_.beam;
    if (!found.reset(beam + runtime_.neighbour_count + 1)) return false;
    bitstore_reset(scratch_.visited.get());
    korvex_session_s session{};
    session.mode = 1;
    session.beam = static_cast<std::int32_t>(beam);
    session.visited = scratch_.visited.get();
    walk_report report;
    walk_graph(hnsw_, &session, &found, {0, scratch_.query.get()}, entry_of(probe), shared,
               &report);
    if (!take_allowed() && found.size() >= beam) *whole = false;
    return true;
  }

  // Moves the nearest allowed points from the walk's to the query's. False when they ran out, or
  // came as late as nowhere would be expected.
  bool take_allowed() {
    const walk_beam& found = scratch_.beam;
    std::uint32_t taken = 0;
    for (std::uint32_t i = 0; i < found.size(); ++i) {
      if (scratch_.nearest.size() == k_ && found[i].key >= scratch_.nearest.back().key) return true;
      if (!allowed_.allows(found[i].id)) continue;
      keep(found[i].key, found[i].id);
      if (++taken < k_) continue;
      return allowed_.share() == 1.0 || i < found.size() / 4 || i < 2.0 * found.size() * k_ / ef_;
    }
    return false;
  }

  std::uint32_t entry_of(std::uint32_t probe) const {
    vector_hash_node_s query;
    query.query = scratch_.query.get();
    query.vector = scratch_.unit.get();
    query.aux = scratch_.magnitude;
    vector_hash_node_s answer;
    vector_hash_search_few(runtime_.hash[probe], std::max(fewest_stars, ef_ / 8), &query, &answer);
    const std::uint32_t seed = probe_seed(hnsw_, probe);
    return usable_entry(hnsw_, answer.id != 0 ? answer.id : seed, seed);
  }

  // Points that no walk reaches are found all the same when the row would stay short without them.
  bool scan_unless_complete() {
    if (scratch_.nearest.size() >= k_ || allowed_.surely_fewer_than(scratch_.nearest.size() + 1))
      return true;
    cut_off_ = late();
    if (cut_off_) return true;
    scratch_.nearest.reset(k_ + 1);
    scan();
    return true;
  }

  bool kept(float key, std::uint32_t id) const {
    const walk_beam& nearest = scratch_.nearest;
    for (std::uint32_t i = nearest.size(); i-- > 0 && nearest[i].key >= key;)
      if (nearest[i].id == id) return true;
    return false;
  }

  void keep(float key, std::uint32_t id) {
    walk_beam& nearest = scratch_.nearest;
    if (nearest.size() == k_ && key >= nearest.back().key) return;
    if (kept(key, id)) return;
    nearest.insert(key, id, 0);
    if (nearest.size() > k_) nearest.pop_back();
  }

  void scan() {
    const row_scorer scorer(runtime_);
    const auto end = [this] { return late(); };
    // The second scan of a call: there may be many more.
    if (scans_++ != 0) cut_off_ = !allowed_.settle(scratch_.visited.get(), end);
    if (cut_off_) return;
    cut_off_ = !allowed_.for_each_allowed(scratch_.visited.get(), end, [&](std::uint32_t id) {
      batch_rows_[batch_count_] = vector_of(runtime_, id);
      scorer.prefetch(batch_rows_[batch_count_]);
      batch_[batch_count_++] = id;
      if (batch_count_ == scan_batch) score(scorer);
    });
    score(scorer);
  }

  void score(const row_scorer& scorer) {
    float distances[scan_batch];
    scorer.score_fetched(scratch_.query.get(), batch_rows_, batch_count_, distances);
    const float direction = runtime_.direction.load(std::memory_order_relaxed);
    for (std::uint32_t i = 0; i < batch_count_; ++i)
      keep(key_of(direction, distances[i]), batch_[i]);
    batch_count_ = 0;
  }

  hnsw_s* const hnsw_;
  const korvex_runtime_s& runtime_;
  direct_scratch& scratch_;
  direct_selection& allowed_;
  const std::uint32_t ef_;
  const std::uint32_t k_;
  const std::uint64_t end_ns_;
  const direct_way way_;
  bool cut_off_ = false;
  std::uint32_t scans_ = 0;
  std::uint32_t batch_count_ = 0;
  std::uint32_t batch_[scan_batch];
  const float* batch_rows_[scan_batch];
};

// The caller's buffers; k columns.
struct answer_rows {
  std::size_t k;
  std::uint32_t* ids;
  float* distances;
  std::uint32_t* counts;

  void write(std::size_t row, const walk_beam* nearest, float direction) const {
    const std::size_t found = nearest != nullptr ? nearest->size() : 0;
    std::uint32_t* const row_ids = ids + row * k;
    std::fill(row_ids + found, row_ids + k, no_id);
    for (std::uint32_t i = 0; i < found; ++i) row_ids[i] = (*nearest)[i].id - 1;
    if (counts != nullptr) counts[row] = static_cast<std::uint32_t>(found);
    if (distances == nullptr) return;
    float* const row_distances = distances + row * k;
    std::fill(row_distances + found, row_distances + k, std::numeric_limits<float>::quiet_NaN());
    for (std::uint32_t i = 0; i < found; ++i) row_distances[i] = direction * (*nearest)[i].key;
  }
};

// Who asks for a radius gets it, however short the walk; without one a walk looks at as many as a
// neighbour list holds.
std::uint32_t candidates(const hnsw_s* hnsw, int radius, int k) {
  const std::int64_t wanted = radius > 0 ? radius : hnsw->runtime->neighbour_count;
  const std::int64_t ef = std::max<std::int64_t>(k, wanted);
  return static_cast<std::uint32_t>(std::min(ef, max_candidates));
}

// Rows answered in time, or -1. Rows behind them are written as empty, or with what was found.
std::int64_t answer_all(hnsw_s* hnsw, const float* queries, std::size_t n, std::uint32_t k,
                        const direct_options& options, std::uint64_t end_ns,
                        const answer_rows& rows, direct_scratch* scratch) {
  direct_selection allowed(hnsw, options, scratch->allowed.get());
  const std::uint32_t useful = std::max(std::min(k, allowed.points()), 1u);
  const int radius = options.radius;
  direct_query query(hnsw, scratch, allowed, candidates(hnsw, radius, static_cast<int>(useful)),
                     useful, end_ns, options.way);
  const float direction = hnsw->runtime->direction.load(std::memory_order_relaxed);
  std::int64_t answered = 0;
  bool in_time = true;
  for (std::size_t i = 0; i < n; ++i) {
    if (in_time && !query.run(queries + i * hnsw->dimension)) return -1;
    rows.write(i, in_time ? &scratch->nearest : nullptr, direction);
    in_time = in_time && query.in_time();
    answered += in_time ? 1 : 0;
  }
  return load_counter(hnsw->stop_searching) == 0 ? answered : -1;
}

std::int64_t search(hnsw_s* hnsw, const float* queries, std::size_t n, int k,
                    const direct_options& options, const answer_rows& rows) {
  if (hnsw->validate_parameters != 0)
    for (std::size_t i = 0; i < n; ++i)
      if (!all_finite(queries + i * hnsw->dimension, hnsw->dimension)) return -1;
  runtime_use use(hnsw->runtime);
  if (!use || !korvex_try_init_memory(hnsw)) return -1;
  korvex_runtime_s& runtime = *hnsw->runtime;
  const std::uint64_t begin = platform::monotonic_ns();
  const std::uint64_t end =
      options.deadline_ms == 0 || options.deadline_ms > (never - begin) / 1'000'000
          ? never
          : begin + options.deadline_ms * 1'000'000;
  if (!korvex_wait_linked(hnsw, options.deadline_ms == 0 ? never : options.deadline_ms)) {
    for (std::size_t i = 0; i < n; ++i) rows.write(i, nullptr, 1.0f);
    return load_counter(hnsw->stop_searching) == 0 ? 0 : -1;
  }
  std::shared_ptr<direct_scratch> scratch = take_scratch(runtime);
  if (scratch == nullptr) return -1;
  const std::int64_t answered = answer_all(hnsw, queries, n, static_cast<std::uint32_t>(k), options,
                                           end, rows, scratch.get());
  give_back(runtime, std::move(scratch));
  return answered;
}

}  // namespace

std::int64_t korvex_search_direct(hnsw_s* hnsw, const float* queries, std::size_t n, int k,
                                  const direct_options* options, std::uint32_t* ids,
                                  float* distances, std::uint32_t* counts) {
  if (hnsw == nullptr || queries == nullptr || ids == nullptr || k < 1 || k > max_candidates)
    return -1;
  try {
    return search(hnsw, queries, n, k, options != nullptr ? *options : direct_options{},
                  {static_cast<std::size_t>(k), ids, distances, counts});
  } catch (const std::bad_alloc&) {
    KORVEX_LOG_CRITICAL("no memory for a direct search\n");
    return -1;
  }
}

}  // namespace korvex
