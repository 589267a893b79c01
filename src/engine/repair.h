#ifndef KORVEX_ENGINE_REPAIR_H
#define KORVEX_ENGINE_REPAIR_H

#include "engine/record.h"

namespace korvex {

// Brings the stores and counters of a reopened index into step: after a kill stores may differ in
// length, lock bits may be set and points may lack their links. Nothing that an addition had
// returned is lost; what was not linked is queued for the indexing threads. Part of the start-up;
// does nothing for a new index or after a clean close.
void korvex_repair(hnsw_s* hnsw);

}  // namespace korvex

#endif  // KORVEX_ENGINE_REPAIR_H
