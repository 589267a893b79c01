#ifndef KORVEX_ENGINE_SYNC_H
#define KORVEX_ENGINE_SYNC_H

#include "engine/record.h"

namespace korvex {

// Puts an on-disk index on its device: its stores and the index file, then the other stores of the
// process that are on disk (the results cache, filters, other indexes). A store that was synced
// less than `min_interval` seconds ago is skipped; 0: none is. An index in memory has nothing of
// its own to sync.
// Threads   beside everything but the teardown; points that are being added meanwhile may come with
//           the next sync
// Failure   -1: null, or the device refused, now or since the opening: what it did not take then may never
//           have reached it
int korvex_sync_to_disk(hnsw_s* hnsw, unsigned min_interval);

// The stores alone. False when the device refused one of them, now or since the opening. When none was skipped
// either, the record then says, once it is written, up to which point a crash cannot have harmed them.
// Threads   as above
bool korvex_sync_stores(hnsw_s* hnsw, unsigned min_interval);

// Before the first change after an orderly close: from here on the next opening must look for what
// is missing, and the device knows that before it knows any of the changes. Cheap afterwards.
// Threads   under the insert lock, or during the start-up
void korvex_begin_changes(hnsw_s* hnsw);

}  // namespace korvex

#endif  // KORVEX_ENGINE_SYNC_H
