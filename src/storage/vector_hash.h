#ifndef KORVEX_STORAGE_VECTOR_HASH_H
#define KORVEX_STORAGE_VECTOR_HASH_H

#include <cstddef>
#include <cstdint>

namespace korvex {

class DistanceL2Square;
class vectpool_c;
struct vectpool_conf_s;
struct persistent_malloc_s;

// One point or query on its way in, or an answer on its way out.
struct vector_hash_node_s {
  std::uint32_t id = 0;           // the point being added; of an answer the star found, 0 = none
  const float* query = nullptr;   // what the distance function compares in search mode
  const float* vector = nullptr;  // unit-length, for the anchor; in add mode for stars too
  float best = 0;                 // answer: distance of the nearest star, or of the anchor
  float aux = 0;  // of an added point: every ring keeps the range it has seen; of a query its
                  // magnitude, where the distance function wants it
  std::uint32_t placed = 0;  // answer: the added point became a star
  std::uint32_t placed2 = 0;
  std::int32_t ring = 0;        // answer
  std::int32_t ring_count = 0;  // answer of a search, from here on
  float ring_high = 0;
  float ring_low = 0;
};

enum vector_hash_mode : int { vector_hash_mode_search = 0, vector_hash_mode_add = 1 };

// The distance between the stored point `id` and `n` on the scale of squared distances of unit
// vectors (0..4, smaller is nearer): rings, capture radii and the 0.1 limits assume it.
// Parameters    `mode` is a vector_hash_mode.
// Requirements  3.4028235e38 for an id that names no stored point: star ids may come from a
//               damaged file. NaN counts as infinitely far.
// Threads       called by searching threads and the adding thread at once.
using vector_hash_distance_fn = float (*)(void* ctx, unsigned id, vector_hash_node_s* n, int mode);

// The same for many stars at once. In search mode, of a star that is provably no nearer than another of the same call
// any value not below that one's will do.
// Parameters    `out` takes `count` distances.
using vector_hash_scan_fn = void (*)(void* ctx, const std::uint32_t* ids, std::uint32_t count,
                                     vector_hash_node_s* n, int mode, float* out);

// A star. Arrays of them fill from index 0; the first id 0 ends an array that is not full. Most
// arrays stay short, so an array begins with little room and moves when it is used up, end mark
// included: see vector_hash_room.
// Stored: never change the layout.
struct vector_hash_star_s {
  std::uint32_t id;
  std::uint32_t lid;  // first record of this star's own child array in the pool, 0 = none
};

// A ring. Stored: never change the layout.
struct vector_hash_link_s {
  std::uint32_t id;   // the anchor's id once the ring has received a point
  std::uint32_t lid;  // the ring's top star array, 0 = none
  float radius;       // capture radius of that array: index x 0.1
  std::uint32_t count;
  float high;  // range of the auxiliary values seen
  float low;
};

inline constexpr int vector_hash_rings = 40;
inline constexpr unsigned vector_hash_block_bytes = 3276800;  // of star arrays; part of file names

// Radii halve from at most 3.9 and stop below 0.1, so six levels occur; child ids that form a
// circle in a damaged file end here.
inline constexpr int vector_hash_max_depth = 8;

// Slots of a star array that is visited at a radius, for the width that vector_hash_init was given.
constexpr std::uint32_t vector_hash_width_at(std::uint32_t width, float radius) {
  if (radius >= 0.799f) return 4 * width;
  return radius >= 0.2f ? 2 * width : width;
}

// Slots that an array of `stars` stars takes in the pool; `width` is the most that it may hold.
constexpr std::uint32_t vector_hash_room(std::uint32_t stars, std::uint32_t width) {
  std::uint32_t room = 8;
  while (room <= stars && room < width) room *= 2;
  return room < width ? room : width;
}

// Finds an entry point for a graph walk: every point falls into a ring around the anchor by its
// squared distance, and inside a ring the points far from all earlier ones are the stars of a
// tree whose capture radius halves by level.
// Threads     one adding thread at a time; searches run beside it without a lock. A star's id is
//             stored with release after its vector and after the end mark behind it, the id of a
//             child array after its slots. An array that has moved stays as it was for those who
//             are in it.
// Ownership   the record, the anchor and the rings are blocks of the persistent allocator, star
//             arrays records of the pool. Pointers in the record belong to this process and are
//             set again on every open.
// Invariant   stars are older (smaller id) than every point that was compared with them.
// Stored: never change the layout.
struct vector_hash_s {
  std::uint32_t ep_id;  // the anchor's id, 0 until set; released after the anchor is complete
  float* anchor;
  vectpool_c* pool;
  vector_hash_link_s* rings;
  std::int32_t dim;
  std::int32_t anchor_len;
  vector_hash_distance_fn distance;
  void* ctx;
  std::uint32_t width_wide;    // slots of an array visited at a radius >= 0.799
  std::uint32_t width_narrow;  // < 0.2
  std::uint32_t width_mid;     // between
  std::uint16_t ring_count;
  DistanceL2Square* l2;
  float (*l2_fn)(const float* a, const float* b, std::size_t n);
  std::int32_t arrays;  // star arrays allocated so far
  std::int32_t stars;   // stars placed so far
  vector_hash_scan_fn scan;
};

static_assert(sizeof(vector_hash_star_s) == 8, "star arrays are blocks of a store file");
static_assert(sizeof(vector_hash_link_s) == 24, "the ring table is a block of the index file");
static_assert(sizeof(vector_hash_s) == 104, "the record is a block of the index file");
static_assert(offsetof(vector_hash_s, arrays) == 88);

// The hash in blocks base_key (record), base_key + 1 (anchor) and base_key + 2 (rings) of `pm`.
// Star arrays are 4 x width, 2 x width or width slots. A hash that is already there keeps its
// anchor, id, rings and counters; the rest of the record is rebuilt. Where the anchor's id was
// lost ep_id is 0, and vector_hash_set_ep_id must follow.
// Requirements  distance_init has run; anchor_len >= dim >= 1; `pool` is from vector_hash_pool and
//               outlives the hash
// Failure       null: no room for a block, in the pool or on the heap
vector_hash_s* vector_hash_init(int dim, int anchor_len, unsigned width, vectpool_c* pool,
                                persistent_malloc_s* pm, long long base_key,
                                vector_hash_distance_fn distance, void* ctx);

// Lets whole star arrays be compared at once. Before the first search and addition; null: one by one.
void vector_hash_set_scan(vector_hash_s* vh, vector_hash_scan_fn scan);

// Releases what the process holds for the hash; blocks of an index file stay in it. `pm` is the
// allocator that the hash came from. Null is ignored.
void vector_hash_destroy(vector_hash_s* vh, persistent_malloc_s* pm);

// The store of star arrays, shared by all hashes of an index. The caller deletes it. Throws what
// the constructor of vectpool_c throws.
vectpool_c* vector_hash_pool(int kind, vectpool_conf_s* conf);

// Sets the anchor: anchor_len floats. The first call may run beside searches; a repeated one
// (logged) must not.
void vector_hash_set_ep_id(vector_hash_s* vh, unsigned id, const float* v);

// Registers point node->id by node->vector and node->aux. answer->id is the nearest star met on
// the way (always older than the point, 0 = none), answer->placed whether the point became a star.
// Result   the depth at which the descent ended; 0 also when the point is too near to the anchor
//          or to a star for a deeper level; -1 on a fault (logged, the point is not hashed)
int vector_hash_add_point(vector_hash_s* vh, vector_hash_node_s* node, vector_hash_node_s* answer);

// Finds the nearest star to the query: in its own ring, then in the inner and the outer neighbour
// until one is within 0.1. answer->id is 0 when the last ring tried has no star array, whatever was
// found before: the caller then falls back to its own entry point. Takes no lock. Returns 0.
int vector_hash_search(vector_hash_s* vh, vector_hash_node_s* query, vector_hash_node_s* answer);

// A near star at a fraction of the cost, for walks that are short themselves: from the query's own ring alone, or else from one
// beside it that has stars, and of every array only the first `most` ones are looked at. Fills answer->id (0 = none) and
// answer->best. Takes no lock.
void vector_hash_search_few(vector_hash_s* vh, std::uint32_t most, vector_hash_node_s* query,
                            vector_hash_node_s* answer);

}  // namespace korvex

#endif  // KORVEX_STORAGE_VECTOR_HASH_H
