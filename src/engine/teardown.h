#ifndef KORVEX_ENGINE_TEARDOWN_H
#define KORVEX_ENGINE_TEARDOWN_H

#include "engine/record.h"

namespace korvex {

struct korvex_runtime_s;

// Makes room for what korvex_free leaves behind; once before each index that it may be called for.
// Throws std::bad_alloc.
void korvex_prepare_free();

// Stops an index and gives it up. Takes 110 ms at most: engine threads that are still inside a
// host's callback keep the memory until they leave, and the last one releases it. The record must
// not be used afterwards. Null is ignored.
// Threads   any, also from a callback of the index; no other call on the record may be under way
//           but those of sessions
void korvex_free(hnsw_s* hnsw);

// Releases what an index holds, after its last user left.
void korvex_release(korvex_runtime_s* runtime);

// The lowest free thread slot 0..31, or -1 when all are taken; -1 is accepted by the release.
int korvex_get_thread_index(hnsw_s* hnsw);
void korvex_free_thread_index(hnsw_s* hnsw, int slot);

// A thread body that checks thread start-up: reports the int that `argument` points to and ends
// after two seconds.
void* thread_work(void* argument);

}  // namespace korvex

#endif  // KORVEX_ENGINE_TEARDOWN_H
