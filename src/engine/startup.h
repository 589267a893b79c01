#ifndef KORVEX_ENGINE_STARTUP_H
#define KORVEX_ENGINE_STARTUP_H

#include "engine/record.h"

namespace korvex {

// Once per process: random generators, logger, kernels, processor kinds.
void korvex_process_start();

// Builds the stores, hashes and lists that additions and sessions need, on first use; a reopened
// index finds its records again. Does nothing once it has succeeded.
// Threads   any; one builds, the others wait.
// Failure   throws what a store's constructor throws; what was built is released and the next call
//           tries again.
void korvex_init_memory(hnsw_s* hnsw);
// The same for callers that answer with a failure value: false after one line.
bool korvex_try_init_memory(hnsw_s* hnsw);

// Under the start-up lock: makes the metric object and what follows from it.
void korvex_select_metric(hnsw_s* hnsw, korvex_distance_type type);
// Makes the configured metric, or squared L2, when there is none yet.
void korvex_choose_metric(hnsw_s* hnsw);
// Under the start-up lock, once stores exist.
void korvex_create_bloom(hnsw_s* hnsw);

// Frees what the start-up built. Requires that no thread uses the index any more.
void korvex_release_stores(hnsw_s* hnsw);

// Bytes that the start-up may plan with in place of what the system reports; only before it ran.
void korvex_available_memory(hnsw_s* hnsw, std::uint64_t bytes);

}  // namespace korvex

#endif  // KORVEX_ENGINE_STARTUP_H
