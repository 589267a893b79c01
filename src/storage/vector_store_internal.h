#ifndef KORVEX_STORAGE_VECTOR_STORE_INTERNAL_H
#define KORVEX_STORAGE_VECTOR_STORE_INTERNAL_H

#include <cstdint>

#include "storage/vector_store.h"
#include "storage/vector_store_format.h"

// What the source files of the record store share. Unless said otherwise the caller holds the
// store's mutex, or is alone with a store that is being made.
namespace korvex::store {

inline std::uint64_t block_bytes(const vector_manager_s& m) {
  return m.block_data_bytes + vector_block_header_bytes;
}

inline vector_block_header_s& header_of(const vector_block_s& block) {
  return *reinterpret_cast<vector_block_header_s*>(block.data);
}

void write_header(const vector_manager_s& m, const vector_block_s& block);

// Makes room for one more entry in the blocks array. False when memory fails.
bool make_block_slot(vector_manager_s& m);
// Takes the block as the next one; make_block_slot came before.
void append_block(vector_manager_s& m, const vector_block_s& block);
void release_block(const vector_block_s& block);

// Records that were never used, in one block. Never looks at the free list.
void* add_fresh(vector_manager_s& m, unsigned* id_out, std::uint32_t count);

// --- free list ---
// The first id of `count` records from the shortest run that holds them, or vector_no_id.
std::uint32_t take_free_records(vector_manager_s& m, std::uint32_t count);
void free_records(vector_manager_s& m, std::uint32_t id, std::uint32_t count);

// --- files ---
// Builds the fixed part of the block files' names. False when memory fails.
bool name_files(vector_manager_s& m, const vectpool_conf_s& conf);
// A fresh file with a written header and room for the first `count` records; data null on failure.
vector_block_s make_file_block(vector_manager_s& m, std::uint32_t index, std::uint32_t count);
// Makes room on disk for a block's slots below `end`. False, after a line, on a full disk.
bool reserve_slots(vector_manager_s& m, std::uint32_t index, std::uint64_t end);
// Renames what stands at a block's place and behind it, as "<file>.bad". False when something must stay.
bool set_aside_from(vector_manager_s& m, std::uint32_t index);
// False when a block could not be read that may be sound.
bool restore_blocks(vector_manager_s& m);

// --- registry; takes its own lock, the caller holds none ---
// Enters a persistent store. False when a live one has the same files.
bool register_store(vector_manager_s& m);
// Returns when nobody will touch the store through the registry any more.
void unregister_store(vector_manager_s& m);

}  // namespace korvex::store

#endif  // KORVEX_STORAGE_VECTOR_STORE_INTERNAL_H
