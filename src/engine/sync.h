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
// Failure   -1: null, or the device refused the index file
int korvex_sync_to_disk(hnsw_s* hnsw, unsigned min_interval);

}  // namespace korvex

#endif  // KORVEX_ENGINE_SYNC_H
