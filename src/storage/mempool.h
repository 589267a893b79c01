#ifndef KORVEX_STORAGE_MEMPOOL_H
#define KORVEX_STORAGE_MEMPOOL_H

namespace korvex {

// Fixed-size elements carved from large chunks; an element can be found again from its id, and a
// word left with an element when it is freed (its tag) comes back with the allocation that reuses
// it. The element freed longest ago is reused first.
// Threads     alloc, free and reset take the pool's mutex; mempool_get_from_id and reading elements
//             take none. A reset or destroy must be alone with the elements and chunks it releases.
// Ownership   elements belong to the pool; a pointer lives until mempool_free, a reset or
//             mempool_destroy.
// Alignment   elements are aligned to 8 bytes and no more.
// Invariant   a free element is on the free list exactly once (its in-use byte is exchanged, not
//             stored).
struct mempool_s;

// Sizes are in bytes, counts in elements. per_chunk 0 means 256; first_chunk is the size of the
// very first chunk, 0 for the same as the others; maximum 0 means no limit; ids != 0 keeps an id
// for every element. Null when memory is short or element_size is negative.
mempool_s* mempool_init(int element_size, int per_chunk, int first_chunk, int maximum, int ids);
// From here on an element for which no id can be kept is not handed out. Otherwise want of memory for
// ids switches them off for the whole pool.
void mempool_require_ids(mempool_s* pool);
// A limit of 0 or above the elements made so far lets a pool that had reached its old limit grow
// again. Elements that exist already are kept.
void mempool_set_max_poolsize(mempool_s* pool, int maximum);

// An element, not cleared; null when the limit is reached or memory is short. Both outputs may be
// null. *id_out is 0 in a pool without ids; *tag_out is null for a fresh element.
void* mempool_alloc(mempool_s* pool, unsigned* id_out, void** tag_out);
// Double frees and pointers that are not elements are refused with a line.
void mempool_free(mempool_s* pool, void* data, void* tag);
void mempool_free_auto(void* data, void* tag);

// The element that carries the id while it is handed out, else null. Lock-free; safe beside alloc
// and free.
void* mempool_get_from_id(mempool_s* pool, unsigned id);

// Takes all elements back; ids start at 1 again, the limit and the count of elements made stay. The
// first chunk is kept when the pool has a first-chunk size and neither free_all nor force is set.
// 0, or -1 for elements in use (unless forced) and for something that is not a pool.
int mempool_reset(mempool_s* pool, int free_all, int force);
void mempool_destroy(mempool_s* pool);

}  // namespace korvex

#endif  // KORVEX_STORAGE_MEMPOOL_H
