#ifndef KORVEX_STORAGE_VECTOR_HASH_REPAIR_H
#define KORVEX_STORAGE_VECTOR_HASH_REPAIR_H

#include <cstdint>
#include <functional>
#include <vector>

#include "storage/vector_hash.h"

// What is done to a hash after a crash: star arrays and rings lie in two files, and a power cut may
// leave one older than the other.
// Threads   nobody else uses the hash
namespace korvex {

// Takes out stars that `usable` refuses or that are not newer than the star above them, and arrays
// that lie outside the pool, hang too deep or share a slot with another. `claimed` has an entry for
// each slot of the pool, true when it belongs to an array, and serves all hashes of a pool.
// Result   how many stars and arrays went
std::uint32_t vector_hash_mend(vector_hash_s* vh, std::vector<bool>* claimed,
                               const std::function<bool(std::uint32_t id)>& usable);

// Forgets the stars and takes an anchor of anchor_len floats (null: none); points may then be added. The slots of the
// old arrays stay unused.
void vector_hash_begin_anew(vector_hash_s* vh, const float* anchor);
// Gives the hash the id of its anchor, after all of its points were added: a hash that a kill left half filled has none.
void vector_hash_finish(vector_hash_s* vh, std::uint32_t id);

}  // namespace korvex

#endif  // KORVEX_STORAGE_VECTOR_HASH_REPAIR_H
