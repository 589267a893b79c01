#ifndef KORVEX_ENGINE_INDEXING_H
#define KORVEX_ENGINE_INDEXING_H

#include <cstdint>

#include "engine/record.h"

namespace korvex {

// Makes what linking on the adding thread needs, unless there are indexing threads. Under the insert
// lock, before the first point. False when memory is short.
bool korvex_prepare_linking(hnsw_s* hnsw);

// Counts a point whose records are complete and wakes the indexing threads, or links it here when
// there are none; the caller gives the ready notice then, once it has left the lock. Under the
// insert lock; ids come in order.
void korvex_publish(hnsw_s* hnsw, std::uint32_t id);

// Starts up to n indexing threads while fewer than the configured number run.
void korvex_launch_threads(hnsw_s* hnsw, int n);

// Links what waits on the calling thread, when no thread runs and none can be made.
void link_on_caller(hnsw_s* hnsw);
// Whether the calling thread links points of this index.
bool is_indexing_thread(const korvex_runtime_s& runtime);

int korvex_has_finish_adding(hnsw_s* hnsw);
// Returns once every point that was added before the call is linked, or the index is being torn
// down. At once on an indexing thread of the index, which would wait for itself.
void korvex_wait_finish_adding(hnsw_s* hnsw);

// The same without a line in the log, for at most timeout_ms. False when the time passed first or
// the index is being torn down.
bool korvex_wait_linked(hnsw_s* hnsw, std::uint64_t timeout_ms);

// Fires the ready notice when it is due; once, until a new callback is set.
void korvex_notify_ready(hnsw_s* hnsw);

}  // namespace korvex

#endif  // KORVEX_ENGINE_INDEXING_H
