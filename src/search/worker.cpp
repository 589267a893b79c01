#include "search/worker.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

#include "engine/distances.h"
#include "engine/points.h"
#include "engine/runtime.h"
#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "search/result_cache.h"
#include "storage/vector_hash.h"

namespace korvex {

namespace {

constexpr unsigned visited_bits = 1'000'000;
constexpr int candidate_elements = 400;
constexpr int identity_shift = 4;
enum cache_answer : int { exact_hit = 0 };

// Host filters take public ids and a label; the walk knows internal ids.
int ask_filter(const search_filter_callback filter, const void* data, hnsw_s* hnsw,
               std::uint32_t id) {
  const std::uint64_t label = hnsw->runtime->labels ? korvex_get_label(hnsw, id - 1) : 0;
  return filter(data, id - 1, label);
}

bool any_excluded(session_attachment* attachment) {
  std::lock_guard lock(attachment->lock);
  return attachment->excluded.size() != 0;
}

bool is_excluded(session_attachment* attachment, std::uint32_t id) {
  std::lock_guard lock(attachment->lock);
  return attachment->excluded.contains(id);
}

}  // namespace

// How a session's query is kept in the process-wide cache.
struct search_worker::cache_view {
  bool on;
  cache_key_mode keys;
  std::uint32_t partition;  // the probe, and whose index it is
  std::uint16_t ef;
};

search_worker::search_worker(hnsw_s* hnsw)
    : hnsw_(hnsw), nbrs_(korvex_nbrs_alloc(hnsw, candidate_elements)) {
  walk_.visited = bitstore_init(visited_bits);
}

search_worker::~search_worker() {
  korvex_nbrs_free(nbrs_);
  if (walk_.visited != nullptr) bitstore_free(walk_.visited);
}

void search_worker::run(search_job* job) {
  korvex_search_ctx_s* const session = job->session;
  korvex_nbrs_reset(hnsw_, nbrs_);
  bitstore_reset(walk_.visited);
  walk_.mode = 1;
  walk_.beam = static_cast<std::int32_t>(session->ef);
  walk_.budget = 0;
  walk_.radius_set = false;
  use_filter(session);
  walking_ = true;
  search_slice(session, job->probe);
  walking_ = false;
  complete_job(session, false);
}

void search_worker::use_filter(korvex_search_ctx_s* session) {
  std::lock_guard lock(hnsw_->runtime->search_mutex);
  filter_ = {session->filter, session->callback_data, hnsw_};
  walk_.filter_context = &filter_;
  walk_.filter = nullptr;
  if (filter_.filter == nullptr) return;
  walk_.filter = [](void* context, unsigned id, int) {
    const auto* const snapshot = static_cast<const filter_snapshot*>(context);
    return ask_filter(snapshot->filter, snapshot->data, snapshot->hnsw, id);
  };
}

void search_worker::search_slice(korvex_search_ctx_s* session, std::uint32_t probe) {
  result_slice* const slice = &session_results(session)->slices[probe];
  const bool nothing_delivered =
      session->mode == mode_more ? !slice->delivered : slice->primary.count == 0;
  dropping_delivered_ = session->mode == mode_more;
  if (session->mode == mode_new || nothing_delivered)
    search_anew(session, probe, slice);
  else
    search_on(session, probe, slice);
  copy_out(session, slice);
}

void search_worker::search_anew(korvex_search_ctx_s* session, std::uint32_t probe,
                                result_slice* slice) {
  slice->primary.count = 0;
  slice->secondary.count = 0;
  const std::uint32_t entry = entry_of(session, probe);
  const int mode = hnsw_->runtime->result_cache_mode.load(std::memory_order_relaxed);
  const cache_view cache{mode != 0 && filter_.filter == nullptr,
                         mode == 2 ? cache_key_mode::exact_bits : cache_key_mode::whole_parts,
                         probe | static_cast<std::uint32_t>(hnsw_->identity << identity_shift),
                         static_cast<std::uint16_t>(std::min<std::uint32_t>(session->ef, 65'535))};
  if (cache.on && seed_from_cache(session, cache)) return;
  const std::uint64_t walk_start = cache_search_time();
  // A walk that could not yet meet an added point leaves no answer behind: its addition has already
  // told the cache.
  const bool all_linked = load_counter(hnsw_->networked) >= load_counter(hnsw_->added);
  const std::uint64_t begin = platform::monotonic_ns();
  walk(session, entry);
  // A teardown cuts walks short, and so does a fault.
  if (cache.on && all_linked && !nbrs_->broken_off && load_counter(hnsw_->stop_searching) == 0)
    store_in_cache(session, cache, walk_start, (platform::monotonic_ns() - begin) / 1'000);
}

std::uint32_t search_worker::entry_of(const korvex_search_ctx_s* session,
                                      std::uint32_t probe) const {
  vector_hash_node_s query;
  query.query = session->node.vector;
  query.vector = session->prepared;
  query.aux = session->query_magnitude;
  vector_hash_node_s answer;
  vector_hash_search(hnsw_->runtime->hash[probe], &query, &answer);
  const std::uint32_t seed = probe_seed(hnsw_, probe);
  return usable_entry(hnsw_, answer.id != 0 ? answer.id : seed, seed);
}

// True when the cached candidates answer the query without a walk; otherwise they are where the
// walk begins.
bool search_worker::seed_from_cache(korvex_search_ctx_s* session, const cache_view& cache) {
  std::uint32_t ids[cache_max_ids];
  cache_results_s cached;
  cached.ids = ids;
  cached.capacity = cache_max_ids;
  const float* const query = session->node.vector;
  const int answer = cache_search_results_get(query, hnsw_->dimension, cache.ef, cache.partition,
                                              &cached, cache_max_ids, cache.keys);
  if (answer < 0) return false;
  const bool exact = answer == exact_hit && session->ef <= cache_max_ids;
  const std::uint32_t count = std::min(cached.ef_and_count & 0xFFFFu, session->ef);
  const std::uint32_t points = hnsw_->runtime->store[vector_store]->size();
  const float direction = hnsw_->runtime->direction.load(std::memory_order_relaxed);
  for (std::uint32_t i = 0; i < count; ++i) {
    if (ids[i] < 1 || ids[i] >= points || bitstore_set(walk_.visited, ids[i]) != 0) continue;
    const float key = key_of(direction, korvex_get_distance_ext(hnsw_, ids[i] - 1, query));
    korvex_nbrs_add(nbrs_, ids[i], key, 0, exact ? 1 : 0);
  }
  if (!exact || nbrs_->candidates->size() == 0) return false;
  if (cache.keys == cache_key_mode::whole_parts &&
      !hnsw_->runtime->cache_advice_given.load(std::memory_order_relaxed)) {
    const bool all_small = std::all_of(query, query + hnsw_->dimension,
                                       [](float component) { return std::fabs(component) < 1.0f; });
    if (all_small && !hnsw_->runtime->cache_advice_given.exchange(true))
      KORVEX_LOG(
          "a query whose components all lie within (-1, 1) was answered from the result cache; "
          "scale the vectors, by 10000 say, or set the result cache to exact keys\n");
  }
  return true;
}

void search_worker::store_in_cache(korvex_search_ctx_s* session, const cache_view& cache,
                                   std::uint64_t walk_start, std::uint64_t elapsed_usec) {
  std::uint32_t ids[cache_max_ids];
  std::uint32_t count = 0;
  for (const linklist_link_s* link = nbrs_->candidates->get_head();
       link != nullptr && count < cache_max_ids; link = link->next)
    ids[count++] = static_cast<const korvex_nelem_s*>(link->data)->id;
  for (std::int32_t i = 0; i < nbrs_->dropped_count && count < cache_max_ids; ++i)
    ids[count++] = nbrs_->dropped[i];
  cache_search_results_set(session->node.vector, hnsw_->dimension, cache.ef, cache.partition,
                           static_cast<std::uint32_t>(elapsed_usec), ids, count, walk_start,
                           cache.keys);
}

void search_worker::search_on(korvex_search_ctx_s* session, std::uint32_t probe,
                              result_slice* slice) {
  korvex_search_results_s* const store = session_results(session);
  const bool excludes = any_excluded(session->attachment);
  const bool more = session->mode == mode_more;
  const result_set& seeds = more && slice->secondary.count > 0 ? slice->secondary : slice->primary;
  for (std::uint32_t i = 0; i < seeds.count; ++i) {
    const std::uint32_t id = seeds.ids[i] + 1;
    if (excludes && is_excluded(session->attachment, id)) continue;
    korvex_nbrs_add(nbrs_, id, key_of(store->direction, seeds.distances[i]), 0, 0);
  }
  const auto mark_visited = [this](const result_set& set) {
    for (std::uint32_t i = 0; i < set.count; ++i) bitstore_set(walk_.visited, set.ids[i] + 1);
  };
  mark_visited(seeds);
  if (more) {
    mark_visited(slice->primary);
    for (std::uint32_t i = 0; i < session->tie_count; ++i)
      bitstore_set(walk_.visited, session->ties[i] + 1);
    walk_.radius = slice->delivered_key;
    walk_.radius_set = true;
  }
  walk(session, nbrs_->candidates->size() != 0 ? 0 : entry_of(session, probe));
  if (more && nbrs_->candidates->size() < static_cast<int>(session->ef))
    search_around(session, probe);
}

// The walk ended for lack of points. What it passed over as delivered may have hidden others behind
// it: a walk that keeps those in its beam finds all that can be reached.
void search_worker::search_around(korvex_search_ctx_s* session, std::uint32_t probe) {
  korvex_nbrs_reset(hnsw_, nbrs_);
  bitstore_reset(walk_.visited);
  walk_.radius_set = false;
  walk_.beam = static_cast<std::int32_t>(session->ef + session->attachment->delivered.size());
  walk(session, entry_of(session, probe));
}

void search_worker::walk(korvex_search_ctx_s* session, std::uint32_t entry) {
  shared_bound_s* const shared = session->jobs_total > 1 ? &session->shared : nullptr;
  korvex_search_candidates(hnsw_, &walk_, nbrs_, &session->node, entry, shared);
}

std::uint32_t search_worker::copy_results(korvex_search_ctx_s* session, result_set* set,
                                          std::uint32_t k) {
  const float direction = session_results(session)->direction;
  const bool excludes = any_excluded(session->attachment);
  std::uint32_t id = 0;
  float key = 0;
  std::uint16_t hops = 0;
  while (set->count < k && korvex_nbrs_take_front(nbrs_, &id, &key, &hops)) {
    if (excludes && is_excluded(session->attachment, id)) continue;
    if (dropping_delivered_ && session->attachment->delivered.contains(id)) continue;
    if (korvex_is_flag_set_internal(hnsw_, id, flags_hidden) != 0) continue;
    // The walk filters what it meets, not where it begins.
    if (hops == 0 && filter_.filter != nullptr &&
        ask_filter(filter_.filter, filter_.data, hnsw_, id) != 0)
      continue;
    set->ids[set->count] = id - 1;
    set->distances[set->count++] = direction * key;
  }
  return set->count;
}

// One probe answers a bulk query on its own: straight into the batch's row.
bool search_worker::copy_to_bulk(korvex_search_ctx_s* session) {
  if (session->bulk_output == nullptr || hnsw_->runtime->probe_count != 1 ||
      nbrs_->candidates->size() == 0)
    return false;
  result_set* const primary = &session_results(session)->slices[0].primary;
  copy_results(session, primary, std::min(session->k, session_results(session)->capacity));
  std::copy_n(primary->ids, primary->count, session->bulk_output);
  std::fill(session->bulk_output + primary->count, session->bulk_output + session->k, 0u);
  return true;
}

void search_worker::copy_out(korvex_search_ctx_s* session, result_slice* slice) {
  slice->primary.count = 0;
  slice->secondary.count = 0;
  if (copy_to_bulk(session)) return;
  const std::uint32_t n = std::min(session->k, session_results(session)->capacity);
  copy_results(session, &slice->primary, n);
  if (session->bulk_output == nullptr) copy_results(session, &slice->secondary, n);
}

}  // namespace korvex
