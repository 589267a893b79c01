#ifndef KORVEX_ENGINE_STORED_RECORD_H
#define KORVEX_ENGINE_STORED_RECORD_H

#include <cstdint>
#include <string>

#include "engine/record.h"

// What an opening makes of a record that comes from a file.
namespace korvex {

struct korvex_runtime_s;

// Whether it is a record of the opener's dimension and instance, with sizes that may be trusted.
bool record_matches(const hnsw_s& stored, std::uint32_t dimension, std::uint8_t instance_id);

// Whether vectors that were put on the device are not there any more, which a line then tells, or the record's sizes
// are not those of the files. Going on would give up points. Requires a record that matches.
bool stores_are_lost(const hnsw_s& stored, const std::string& directory, const std::string& name);

// Sets right what the engine indexes and computes with, where only a damaged file says otherwise.
void settle_record(hnsw_s* hnsw);

// Takes away lock bits that the flags of points came with: linking would wait for them for ever.
// Requires the stores of an index that nobody uses yet.
void release_link_locks(const korvex_runtime_s& runtime);

}  // namespace korvex

#endif  // KORVEX_ENGINE_STORED_RECORD_H
