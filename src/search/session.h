#ifndef KORVEX_SEARCH_SESSION_H
#define KORVEX_SEARCH_SESSION_H

#include <cstdint>

#include "engine/record.h"
#include "korvex/korvex.h"

// Search sessions: records through which one query at a time runs against an index. A session is
// named by its id.
// Threads   any. A session id that is 0 or unknown makes every call a no-op with its failure value.
// Failure   search_failed, or null
namespace korvex {

inline constexpr std::uint32_t search_failed = 0xFFFFFFFFu;

struct korvex_search_ctx_s;

// Called from several search threads at once, without a lock.
using search_filter_callback = int (*)(const void* data, unsigned id, unsigned long long label);
using search_result_callback = int (*)(unsigned sid, const void* data);

// Builds what searching needs, once per index. False when memory is short.
bool korvex_search_global_init(hnsw_s* hnsw);

// A new session for up to k results (below 1: 10); 0 when there is none. The stores are started, so
// options that shape them come too late afterwards.
std::uint32_t korvex_search_init(hnsw_s* hnsw, int k, void* user_data);
korvex_search_ctx_s* korvex_search_init_ctx(hnsw_s* hnsw, int k);
// Waits for a running search and its callback, except on that callback's own thread; then returns
// the record.
void korvex_search_free(hnsw_s* hnsw, std::uint32_t sid);

void* korvex_search_get_userdata(hnsw_s* hnsw, std::uint32_t sid);
void korvex_search_set_callbacks(hnsw_s* hnsw, std::uint32_t sid, search_filter_callback filter,
                                 search_result_callback result, const void* data);
void korvex_search_set_cbdata(hnsw_s* hnsw, std::uint32_t sid, const void* data);

// Start a search, continue it behind what was delivered, or run it again from what was found. 0 or
// search_failed.
std::uint32_t korvex_search(hnsw_s* hnsw, std::uint32_t sid, const float* v, int radius, int k);
std::uint32_t korvex_search_more(hnsw_s* hnsw, std::uint32_t sid);
std::uint32_t korvex_search_refine(hnsw_s* hnsw, std::uint32_t sid);
// Never returns the public id in this session again.
std::uint32_t korvex_search_filter(hnsw_s* hnsw, std::uint32_t sid, std::uint32_t id);
int korvex_search_refine_vector(hnsw_s* hnsw, std::uint32_t sid, const float* v,
                                const void* attributes);

// Wait for the running search. What they return belongs to the session and lives until its next
// search.
korvex_results_s* korvex_search_result(hnsw_s* hnsw, std::uint32_t sid, int copy);
korvex_result_ids_s* korvex_search_result_ids(hnsw_s* hnsw, std::uint32_t sid, int copy);
korvex_result_dists_s* korvex_search_result_dists(hnsw_s* hnsw, std::uint32_t sid, int copy);

}  // namespace korvex

#endif  // KORVEX_SEARCH_SESSION_H
