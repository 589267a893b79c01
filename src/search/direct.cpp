#include "search/direct.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

#include "engine/distances.h"
#include "engine/indexing.h"
#include "engine/insertion.h"
#include "engine/points.h"
#include "engine/runtime.h"
#include "engine/startup.h"
#include "engine/walk.h"
#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "runtime/random.h"
#include "storage/vector_hash.h"

namespace korvex {

namespace {

constexpr unsigned visited_bits = 1'000'000;
constexpr std::uint32_t no_id = 0xFFFFFFFFu;
constexpr std::int64_t max_candidates = 1 << 24;
constexpr std::uint32_t share_samples = 1'000;
// A walk evaluates a few points for each candidate that it keeps; asking a filter costs a fraction
// of an evaluation.
constexpr double evaluations_per_candidate = 4.0;
constexpr double filter_cost = 0.2;
constexpr std::uint32_t scan_batch = 16;

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

// Which points may be answers.
class selection {
 public:
  selection(hnsw_s* hnsw, const direct_options& options, bitstore_s* listed)
      : hnsw_(hnsw), options_(options), listed_(listed), points_(load_counter(hnsw->added)) {
    bitstore_reset(listed_);
    for (std::size_t i = 0; options.allowed_ids != nullptr && i < options.allowed_count; ++i)
      if (options.allowed_ids[i] < points_) bitstore_set(listed_, options.allowed_ids[i]);
    if (!everything()) measure();
  }

  bool everything() const {
    return options_.filter == nullptr && options_.allowed_ids == nullptr &&
           options_.allowed_bits == nullptr;
  }
  std::uint32_t points() const { return points_; }

  bool allows(std::uint32_t id) const {
    const std::uint32_t public_id = id - 1;
    if (options_.allowed_ids != nullptr && bitstore_is_set(listed_, public_id) == 0) return false;
    if (options_.allowed_bits != nullptr &&
        (public_id >= options_.allowed_bit_count ||
         (options_.allowed_bits[public_id / 64] >> (public_id % 64) & 1) == 0))
      return false;
    if (options_.filter == nullptr) return true;
    const std::uint64_t label = hnsw_->runtime->labels ? korvex_get_label(hnsw_, public_id) : 0;
    return options_.filter(options_.filter_context, public_id, label) == 0;
  }

  // Candidates that a walk must keep to find as many allowed ones among them.
  std::uint32_t widened(std::uint32_t ef) const {
    if (everything()) return ef;
    return static_cast<std::uint32_t>(
        std::min(static_cast<double>(ef) / share_, static_cast<double>(points_) + 1));
  }

  bool scanning_is_cheaper(std::uint32_t ef) const {
    if (everything()) return false;
    const double asked =
        options_.filter != nullptr && options_.allowed_ids == nullptr ? filter_cost * points_ : 0;
    return asked + share_ * points_ <= evaluations_per_candidate * widened(ef);
  }

  // `seen` is scratch: a list may name an id twice.
  template <typename F>
  void for_each_allowed(bitstore_s* seen, F&& visit) const {
    if (options_.allowed_ids != nullptr) {
      bitstore_reset(seen);
      for (std::size_t i = 0; i < options_.allowed_count; ++i) {
        const std::uint32_t public_id = options_.allowed_ids[i];
        if (public_id < points_ && bitstore_set(seen, public_id) == 0 && allows(public_id + 1))
          visit(public_id + 1);
      }
      return;
    }
    for (std::uint32_t id = 1; id <= points_; ++id)
      if (allows(id)) visit(id);
  }

 private:
  void measure() {
    std::uint32_t hits = 0;
    const std::uint32_t samples = std::min(share_samples, points_);
    for (std::uint32_t i = 0; i < samples; ++i)
      hits += allows(1 + random_u32_max(points_ - 1)) ? 1 : 0;
    share_ = samples == 0 ? 1.0 : static_cast<double>(hits) / samples;
    // Too rare for the sample: below one in its size.
    share_ = std::max(share_, 0.5 / static_cast<double>(share_samples));
  }

  hnsw_s* const hnsw_;
  const direct_options& options_;
  bitstore_s* const listed_;
  const std::uint32_t points_;
  double share_ = 1.0;
};

// One query.
class direct_query {
 public:
  direct_query(hnsw_s* hnsw, direct_scratch* scratch, const selection& allowed, std::uint32_t ef,
               std::uint32_t k)
      : hnsw_(hnsw),
        runtime_(*hnsw->runtime),
        scratch_(*scratch),
        allowed_(allowed),
        ef_(ef),
        k_(k) {}

  bool run(const float* query) {
    prepare(query);
    if (!scratch_.nearest.reset(k_ + 1)) return false;
    if (allowed_.scanning_is_cheaper(ef_)) {
      scan();
      return true;
    }
    const std::uint32_t probes = std::min(load_counter(hnsw_->probes_made), runtime_.probe_count);
    shared_bound_s shared{largest_float};
    for (std::uint32_t probe = 0; probe < probes; ++probe)
      if (!walk(probe, probes > 1 ? &shared : nullptr)) return false;
    return true;
  }

 private:
  void prepare(const float* query) {
    std::memcpy(scratch_.query.get(), query, runtime_.vector_bytes);
    korvex_expand_vector(hnsw_, scratch_.query.get());
    if (hnsw_->normalize != 0)
      normalize_vector(scratch_.query.get(), scratch_.query.get(), runtime_.dimension);
    scratch_.magnitude =
        normalize_vector(scratch_.query.get(), scratch_.unit.get(), runtime_.dimension);
  }

  std::uint32_t entry_of(std::uint32_t probe) const {
    vector_hash_node_s query;
    query.query = scratch_.query.get();
    query.vector = scratch_.unit.get();
    query.aux = scratch_.magnitude;
    vector_hash_node_s answer;
    vector_hash_search(runtime_.hash[probe], &query, &answer);
    const std::uint32_t seed = probe_seed(hnsw_, probe);
    return usable_entry(hnsw_, answer.id != 0 ? answer.id : seed, seed);
  }

  bool walk(std::uint32_t probe, shared_bound_s* shared) {
    const std::uint32_t beam = allowed_.widened(ef_);
    if (!scratch_.beam.reset(beam + runtime_.neighbour_count + 1)) return false;
    bitstore_reset(scratch_.visited.get());
    korvex_session_s session{};
    session.mode = 1;
    session.beam = static_cast<std::int32_t>(beam);
    session.visited = scratch_.visited.get();
    if (!allowed_.everything()) {
      session.pass_rejected = true;
      session.filter_context = const_cast<selection*>(&allowed_);
      session.filter = [](void* context, unsigned id, int) {
        return static_cast<const selection*>(context)->allows(id) ? 0 : 1;
      };
    }
    walk_report report;
    walk_graph(hnsw_, &session, &scratch_.beam, {0, scratch_.query.get()}, entry_of(probe), shared,
               &report);
    for (std::uint32_t i = 0, taken = 0; i < scratch_.beam.size() && taken < k_; ++i) {
      const walk_beam::entry& found = scratch_.beam[i];
      if ((found.marks & walk_beam::rejected) != 0 || hidden(found.id)) continue;
      keep(found.key, found.id);
      ++taken;
    }
    return true;
  }

  bool hidden(std::uint32_t id) const {
    return korvex_is_flag_set_internal(hnsw_, id, flags_hidden) != 0;
  }

  void keep(float key, std::uint32_t id) {
    walk_beam& nearest = scratch_.nearest;
    if (nearest.size() == k_ && key >= nearest.back().key) return;
    nearest.insert(key, id, 0);
    if (nearest.size() > k_) nearest.pop_back();
  }

  void scan() {
    std::uint32_t batch[scan_batch];
    std::uint32_t count = 0;
    const auto score = [&] {
      const distance_kernel distance = runtime_.distance_function.load(std::memory_order_acquire);
      const float direction = runtime_.direction.load(std::memory_order_relaxed);
      for (std::uint32_t i = 0; i < count; ++i)
        keep(key_of(direction, distance(scratch_.query.get(), vector_of(runtime_, batch[i]),
                                        runtime_.dimension)),
             batch[i]);
      count = 0;
    };
    allowed_.for_each_allowed(scratch_.visited.get(), [&](std::uint32_t id) {
      if (hidden(id)) return;
      const char* const vector = reinterpret_cast<const char*>(vector_of(runtime_, id));
      for (std::uint32_t offset = 0; offset < std::min<std::uint32_t>(runtime_.vector_bytes, 1024);
           offset += 64)
        __builtin_prefetch(vector + offset);
      batch[count++] = id;
      if (count == scan_batch) score();
    });
    score();
  }

  hnsw_s* const hnsw_;
  const korvex_runtime_s& runtime_;
  direct_scratch& scratch_;
  const selection& allowed_;
  const std::uint32_t ef_;
  const std::uint32_t k_;
};

void write_row(const korvex_runtime_s& runtime, const walk_beam& nearest, std::size_t k,
               std::uint32_t* ids, float* distances, std::uint32_t* count) {
  const float direction = runtime.direction.load(std::memory_order_relaxed);
  for (std::uint32_t i = 0; i < nearest.size(); ++i) {
    ids[i] = nearest[i].id - 1;
    if (distances != nullptr) distances[i] = direction * nearest[i].key;
  }
  std::fill(ids + nearest.size(), ids + k, no_id);
  if (distances != nullptr)
    std::fill(distances + nearest.size(), distances + k, std::numeric_limits<float>::quiet_NaN());
  if (count != nullptr) *count = nearest.size();
}

std::uint32_t candidates(const hnsw_s* hnsw, int radius, int k) {
  const std::int64_t ef = std::max<std::int64_t>({k, radius, hnsw->runtime->neighbour_count});
  return static_cast<std::uint32_t>(std::min(ef, max_candidates));
}

}  // namespace

namespace {

std::int64_t search(hnsw_s* hnsw, const float* queries, std::size_t n, int k,
                    const direct_options* options, std::uint32_t* ids, float* distances,
                    std::uint32_t* counts) {
  if (hnsw == nullptr || queries == nullptr || ids == nullptr || k < 1 || k > max_candidates)
    return -1;
  const direct_options chosen = options != nullptr ? *options : direct_options{};
  if (hnsw->validate_parameters != 0)
    for (std::size_t i = 0; i < n; ++i)
      if (!all_finite(queries + i * hnsw->dimension, hnsw->dimension)) return -1;
  runtime_use use(hnsw->runtime);
  if (!use || !korvex_try_init_memory(hnsw)) return -1;
  korvex_runtime_s& runtime = *hnsw->runtime;
  const std::uint64_t end =
      chosen.deadline_ms != 0 ? platform::time_ms() + chosen.deadline_ms : ~std::uint64_t{0};
  korvex_wait_finish_adding(hnsw);
  std::shared_ptr<direct_scratch> scratch = take_scratch(runtime);
  if (scratch == nullptr) return -1;
  const selection allowed(hnsw, chosen, scratch->allowed.get());
  direct_query query(hnsw, scratch.get(), allowed, candidates(hnsw, chosen.radius, k),
                     static_cast<std::uint32_t>(k));
  std::int64_t answered = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const std::size_t row = i * static_cast<std::size_t>(k);
    scratch->nearest.reset(1);
    const bool late = end != ~std::uint64_t{0} && platform::time_ms() >= end;
    if (!late && allowed.points() != 0 && !query.run(queries + i * hnsw->dimension)) {
      answered = -1;
      break;
    }
    write_row(runtime, scratch->nearest, static_cast<std::size_t>(k), ids + row,
              distances != nullptr ? distances + row : nullptr,
              counts != nullptr ? counts + i : nullptr);
    ++answered;
  }
  give_back(runtime, std::move(scratch));
  return answered;
}

}  // namespace

std::int64_t korvex_search_direct(hnsw_s* hnsw, const float* queries, std::size_t n, int k,
                                  const direct_options* options, std::uint32_t* ids,
                                  float* distances, std::uint32_t* counts) {
  try {
    return search(hnsw, queries, n, k, options, ids, distances, counts);
  } catch (const std::bad_alloc&) {
    KORVEX_LOG_CRITICAL("no memory for a direct search\n");
    return -1;
  }
}

}  // namespace korvex
