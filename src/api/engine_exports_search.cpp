#include <algorithm>
#include <cstring>
#include <new>

#include "api/engine_border.h"
#include "search/bulk.h"
#include "search/direct.h"
#include "search/session.h"

// The C names of the searches.

using korvex::at_border;
using korvex::on_index;

struct korvex_bulk_search_s : korvex::korvex_bulk_search_s {};

namespace {

constexpr std::uint32_t failed = KORVEX_FAILED;

}  // namespace

extern "C" {

uint32_t korvex_search_init(hnsw_s* index, int k, void* user_data) {
  return on_index(index, "korvex_search_init", uint32_t{0},
                  [&] { return korvex::korvex_search_init(index, k, user_data); });
}

// Also while an index that is given up still has threads inside: its callbacks free their sessions.
void korvex_search_free(hnsw_s* index, uint32_t sid) {
  if (index == nullptr) return;
  at_border("korvex_search_free", [&] {
    korvex::late_use use(index->runtime);
    if (use) korvex::korvex_search_free(index, sid);
  });
}

void* korvex_search_get_userdata(hnsw_s* index, uint32_t sid) {
  return on_index(index, "korvex_search_get_userdata", static_cast<void*>(nullptr),
                  [&] { return korvex::korvex_search_get_userdata(index, sid); });
}

void korvex_search_set_callbacks(hnsw_s* index, uint32_t sid, korvex_filter_callback_fn filter,
                                 korvex_result_callback_fn result, const void* data) {
  on_index(index, "korvex_search_set_callbacks",
           [&] { korvex::korvex_search_set_callbacks(index, sid, filter, result, data); });
}

void korvex_search_set_cbdata(hnsw_s* index, uint32_t sid, const void* data) {
  on_index(index, "korvex_search_set_cbdata",
           [&] { korvex::korvex_search_set_cbdata(index, sid, data); });
}

uint32_t korvex_search(hnsw_s* index, uint32_t sid, const float* query, int radius, int k) {
  return on_index(index, "korvex_search", failed,
                  [&] { return korvex::korvex_search(index, sid, query, radius, k); });
}

uint32_t korvex_search_more(hnsw_s* index, uint32_t sid) {
  return on_index(index, "korvex_search_more", failed,
                  [&] { return korvex::korvex_search_more(index, sid); });
}

uint32_t korvex_search_refine(hnsw_s* index, uint32_t sid) {
  return on_index(index, "korvex_search_refine", failed,
                  [&] { return korvex::korvex_search_refine(index, sid); });
}

uint32_t korvex_search_filter(hnsw_s* index, uint32_t sid, uint32_t id) {
  return on_index(index, "korvex_search_filter", failed,
                  [&] { return korvex::korvex_search_filter(index, sid, id); });
}

int korvex_search_refine_vector(hnsw_s* index, uint32_t sid, const float* vector,
                                const void* attributes) {
  return korvex::korvex_search_refine_vector(index, sid, vector, attributes);
}

korvex_results_s* korvex_search_result(hnsw_s* index, uint32_t sid, int copy) {
  return on_index(index, "korvex_search_result", static_cast<korvex_results_s*>(nullptr),
                  [&] { return korvex::korvex_search_result(index, sid, copy); });
}

korvex_result_ids_s* korvex_search_result_ids(hnsw_s* index, uint32_t sid, int copy) {
  return on_index(index, "korvex_search_result_ids", static_cast<korvex_result_ids_s*>(nullptr),
                  [&] { return korvex::korvex_search_result_ids(index, sid, copy); });
}

korvex_result_dists_s* korvex_search_result_dists(hnsw_s* index, uint32_t sid, int copy) {
  return on_index(index, "korvex_search_result_dists", static_cast<korvex_result_dists_s*>(nullptr),
                  [&] { return korvex::korvex_search_result_dists(index, sid, copy); });
}

korvex_bulk_search_s* korvex_bulk_search_alloc(void) {
  return new (std::nothrow) korvex_bulk_search_s{};
}

void korvex_bulk_search_free(korvex_bulk_search_s* bulk) {
  if (bulk == nullptr) return;
  at_border("korvex_bulk_search_free", [&] { korvex::korvex_bulk_search_release(bulk); });
  delete bulk;
}

uint32_t korvex_bulk_search(hnsw_s* index, korvex_bulk_search_s* bulk, const float* vectors, int n,
                            int radius, int k, korvex_result_callback_fn callback,
                            const void* data) {
  return on_index(index, "korvex_bulk_search", failed, [&] {
    return korvex::korvex_bulk_search(index, bulk, vectors, n, radius, k, callback, data);
  });
}

korvex_bulk_results_s* korvex_bulk_search_results(hnsw_s* index, korvex_bulk_search_s* bulk) {
  return on_index(index, "korvex_bulk_search_results", static_cast<korvex_bulk_results_s*>(nullptr),
                  [&] { return korvex::korvex_bulk_search_results(index, bulk); });
}

int64_t korvex_search_direct(hnsw_s* index, const float* queries, size_t n, int k,
                             const korvex_direct_options_s* options, uint32_t* ids,
                             float* distances, uint32_t* counts) {
  korvex_direct_options_s given{};
  if (options != nullptr)
    std::memcpy(&given, options, std::min<size_t>(options->size, sizeof given));
  const korvex::direct_options chosen{
      given.radius,        given.filter,       given.filter_context,    given.allowed_ids,
      given.allowed_count, given.allowed_bits, given.allowed_bit_count, given.deadline_ms};
  return on_index(index, "korvex_search_direct", int64_t{-1}, [&] {
    return korvex::korvex_search_direct(index, queries, n, k, &chosen, ids, distances, counts);
  });
}

}  // extern "C"
