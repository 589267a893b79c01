#include "storage/vector_hash.h"

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <new>
#include <type_traits>

#include "math/metrics.h"
#include "runtime/log.h"
#include "storage/persistent_allocator.h"
#include "storage/vector_store.h"

namespace korvex {
namespace {

constexpr float ring_step = 0.1f;
// Nothing is resolved finer than this squared distance: neither points around the anchor nor stars
// around a point.
constexpr float near_enough = 0.1f;
static_assert(std::is_trivially_copyable_v<vector_hash_s>);

std::uint32_t load(std::uint32_t& word, std::memory_order order = std::memory_order_relaxed) {
  return std::atomic_ref(word).load(order);
}

template <typename T>
void store(T& word, T value, std::memory_order order = std::memory_order_relaxed) {
  std::atomic_ref(word).store(value, order);
}

// A ring or a star as seen from above: who it is and which array hangs below it.
struct link_ref {
  std::uint32_t* id;
  std::uint32_t* lid;
};

struct scan_result {
  std::uint32_t used = 0;  // occupied slots
  vector_hash_star_s* nearest = nullptr;
  std::uint32_t nearest_id = 0;
  float distance = FLT_MAX;
};

float anchor_distance(const vector_hash_s* vh, const vector_hash_node_s* node) {
  return vh->l2_fn(vh->anchor, node->vector, static_cast<std::size_t>(vh->dim));
}

// Compared in float before the conversion: NaN and everything beyond the last ring belong to the
// last ring.
int ring_of(float r) {
  const float quotient = (r + 0.05f) / ring_step;
  constexpr int last = vector_hash_rings - 1;
  if (!(quotient < static_cast<float>(last))) return last;
  return quotient > 0 ? static_cast<int>(quotient) : 0;
}

// Slots that can be read as one array, none when not even an empty one fits: ids of arrays come from
// the file.
struct star_slots {
  vector_hash_star_s* first = nullptr;
  std::uint32_t count = 0;
};

star_slots fetch_array(vectpool_c* pool, std::uint32_t lid, std::uint32_t width) {
  if (lid >= pool->size()) return {};
  const std::uint32_t in_block = pool->records_per_block();
  const std::uint32_t there = std::min(pool->size() - lid, in_block - lid % in_block);
  if (there < vector_hash_room(0, width)) return {};
  return {static_cast<vector_hash_star_s*>(pool->get(lid)), std::min(width, there)};
}

constexpr std::uint32_t scan_chunk = 128;
constexpr std::uint32_t every_star = ~std::uint32_t{0};

void star_distances(const vector_hash_s* vh, const std::uint32_t* ids, std::uint32_t count,
                    vector_hash_node_s* node, vector_hash_mode mode, float* out) {
  if (vh->scan != nullptr) return vh->scan(vh->ctx, ids, count, node, mode, out);
  for (std::uint32_t i = 0; i < count; ++i) out[i] = vh->distance(vh->ctx, ids[i], node, mode);
}

// A chunk of the array at a time; the earliest of equally near stars counts.
scan_result scan_stars(const vector_hash_s* vh, const star_slots& slots, vector_hash_node_s* node,
                       vector_hash_mode mode) {
  scan_result found;
  std::uint32_t ids[scan_chunk];
  float distances[scan_chunk];
  std::uint32_t count = scan_chunk;
  while (count == scan_chunk) {
    const std::uint32_t end = std::min(slots.count - found.used, scan_chunk);
    for (count = 0; count < end; ++count) {
      ids[count] = load(slots.first[found.used + count].id, std::memory_order_acquire);
      if (ids[count] == 0) break;
    }
    star_distances(vh, ids, count, node, mode, distances);
    for (std::uint32_t i = 0; i < count; ++i) {
      if (!(distances[i] < found.distance)) continue;
      found.nearest = &slots.first[found.used + i];
      found.nearest_id = ids[i];
      found.distance = distances[i];
    }
    found.used += count;
  }
  return found;
}

void clear_answer(vector_hash_node_s* answer) {
  answer->id = 0;
  answer->placed = answer->placed2 = 0;
  answer->best = FLT_MAX;
}

// 0 without an array: nobody reaches the new one before its first slot ends it.
std::uint32_t make_array(vector_hash_s* vh, std::uint32_t& lid, std::uint32_t width) {
  unsigned made = 0;
  auto* const slots =
      static_cast<vector_hash_star_s*>(vh->pool->alloc(&made, vector_hash_room(0, width)));
  if (slots == nullptr || made == 0) return 0;
  store(slots[0].id, 0u);
  store(slots[0].lid, 0u);
  store(lid, static_cast<std::uint32_t>(made), std::memory_order_release);
  std::atomic_ref(vh->arrays).fetch_add(1, std::memory_order_relaxed);
  return made;
}

void append_star(vector_hash_star_s* slots, std::uint32_t slot, std::uint32_t room,
                 std::uint32_t id) {
  if (slot + 1 < room) {
    store(slots[slot + 1].id, 0u);
    store(slots[slot + 1].lid, 0u);
  }
  store(slots[slot].lid, 0u);
  store(slots[slot].id, id, std::memory_order_release);
}

// Behind the `used` stars of the array at `lid`, which moves when its room is used up.
bool place_star(vector_hash_s* vh, std::uint32_t& lid, const star_slots& slots, std::uint32_t used,
                std::uint32_t width, std::uint32_t id) {
  const std::uint32_t room = vector_hash_room(used, width);
  const std::uint32_t wanted = vector_hash_room(used + 1, width);
  if (wanted == room && slots.count >= room) {
    append_star(slots.first, used, room, id);
  } else {
    unsigned made = 0;
    auto* const larger = static_cast<vector_hash_star_s*>(vh->pool->alloc(&made, wanted));
    if (larger == nullptr) return false;
    for (std::uint32_t i = 0; i < used; ++i) {
      store(larger[i].lid, load(slots.first[i].lid));
      store(larger[i].id, load(slots.first[i].id));
    }
    append_star(larger, used, wanted, id);
    store(lid, static_cast<std::uint32_t>(made), std::memory_order_release);
  }
  std::atomic_ref(vh->stars).fetch_add(1, std::memory_order_relaxed);
  return true;
}

// One level's array for an add, made when there is none yet; empty on a fault.
star_slots array_for_add(vector_hash_s* vh, link_ref link, std::uint32_t width,
                         std::uint32_t node_id, int depth) {
  const std::uint32_t above = load(*link.id);
  if (above >= node_id || (depth > 0 && above == 0)) {
    KORVEX_LOG("*** BUG *** ep->id %u > n->id %u depth %d\n", above, node_id, depth);
    return {};
  }
  std::uint32_t lid = load(*link.lid);
  if (lid == 0) lid = make_array(vh, *link.lid, width);
  if (lid == 0) return {};
  const star_slots slots = fetch_array(vh->pool, lid, width);
  if (slots.first == nullptr) KORVEX_LOG("*** BUG *** buffer failed for id %u\n", lid);
  return slots;
}

int descend(vector_hash_s* vh, vector_hash_link_s& ring, vector_hash_node_s* node,
            vector_hash_node_s* answer) {
  float radius = ring.radius;
  link_ref link{&ring.id, &ring.lid};
  for (int depth = 0; depth < vector_hash_max_depth; ++depth, radius *= 0.5f) {
    const std::uint32_t width = vector_hash_width_at(vh->width_narrow, radius);
    const star_slots slots = array_for_add(vh, link, std::max(width, 1u), node->id, depth);
    if (slots.first == nullptr) return -1;
    answer->placed = 0;
    if (width < 1) return depth;
    const scan_result found = scan_stars(vh, slots, node, vector_hash_mode_add);
    if (found.used < width && radius < found.distance && radius < answer->best) {
      if (!place_star(vh, *link.lid, slots, found.used, width, node->id)) return -1;
      answer->placed = answer->placed2 = 1;
      return depth + 1;
    }
    if (found.nearest == nullptr) return depth;
    // A star that is not older is left over from points that a crash took back: it must not become
    // an entry point.
    if (found.distance < answer->best && found.nearest_id < node->id) {
      answer->best = found.distance;
      answer->id = found.nearest_id;
    }
    if (!(answer->best > near_enough && radius * 0.5f >= ring_step)) return 0;
    link = {&found.nearest->id, &found.nearest->lid};
  }
  return 0;
}

// Greedy, never back: the nearest star of an array, of its first `most` ones, leads to the next one.
void vector_hash_search_point(vector_hash_s* vh, vector_hash_link_s& ring, std::uint32_t most,
                              vector_hash_node_s* query, vector_hash_node_s* answer) {
  float radius = ring.radius;
  link_ref link{&ring.id, &ring.lid};
  for (int depth = 0; depth < vector_hash_max_depth && radius >= ring_step;
       ++depth, radius *= 0.5f) {
    if (depth > 0 && load(*link.id) == 0) {
      KORVEX_LOG("*** BUG *** null ep id: depth %d\n", depth);
      return;
    }
    const std::uint32_t lid = load(*link.lid, std::memory_order_acquire);
    if (lid == 0) {
      if (depth == 0) KORVEX_LOG("*** BUG *** ep->lid zero\n");
      return;
    }
    const std::uint32_t width = vector_hash_width_at(vh->width_narrow, radius);
    star_slots slots = fetch_array(vh->pool, lid, width);
    if (slots.first == nullptr) {
      KORVEX_LOG("*** BUG *** null l for ep->lid %u\n", lid);
      return;
    }
    slots.count = std::min(slots.count, most);
    const scan_result found = scan_stars(vh, slots, query, vector_hash_mode_search);
    if (found.nearest == nullptr) return;
    if (found.distance < answer->best) {
      answer->best = found.distance;
      answer->id = found.nearest_id;
    }
    link = {&found.nearest->id, &found.nearest->lid};
  }
}

bool has_stars(vector_hash_link_s& ring) {
  return load(ring.id) != 0 && load(ring.lid) != 0;
}

// What a ring and its neighbours have found so far. A ring without stars wipes the answer, but not
// what it held.
struct carried_answer {
  std::uint32_t id = 0;
  float best = FLT_MAX;

  // Whether the answer is near enough to stop.
  bool walk_on(vector_hash_s* vh, int ring, vector_hash_node_s* query, vector_hash_node_s* answer,
               float r) {
    answer->id = 0;
    answer->best = r;
    if (!has_stars(vh->rings[ring])) return false;
    answer->id = id;
    answer->best = best;
    vector_hash_search_point(vh, vh->rings[ring], every_star, query, answer);
    id = answer->id;
    best = answer->best;
    return best < near_enough;
  }
};

void reset_rings(vector_hash_link_s* rings) {
  for (int i = 0; i < vector_hash_rings; ++i) rings[i] = {0, 0, 0.0f, 0, FLT_MIN, FLT_MAX};
}

struct block {
  void* data;
  bool loaded;  // from the file, with exactly this size; another size is somebody else's or damaged
};

block obtain(persistent_malloc_s* pm, long long key, std::uint64_t size) {
  unsigned old_size = 0;
  void* data = persistent_malloc(pm, key, size, &old_size);
  return {data, data != nullptr && old_size == size};
}

struct hash_blocks {
  block record, anchor, rings;
  bool complete() const {
    return record.data != nullptr && anchor.data != nullptr && rings.data != nullptr;
  }
};

void release(persistent_malloc_s* pm, const hash_blocks& blocks) {
  for (void* data : {blocks.rings.data, blocks.anchor.data, blocks.record.data})
    if (data != nullptr) persistent_free(pm, data);
}

// What a reopened hash keeps. Without its anchor the rings say nothing, so the two are kept or
// dropped together.
void restore(vector_hash_s& fresh, const hash_blocks& blocks) {
  if (blocks.anchor.loaded && blocks.rings.loaded) {
    if (blocks.record.loaded) {
      const auto* old = static_cast<const vector_hash_s*>(blocks.record.data);
      fresh.ep_id = old->ep_id;
      fresh.arrays = old->arrays;
      fresh.stars = old->stars;
    }
  } else {
    std::fill_n(fresh.anchor, fresh.anchor_len, 0.0f);
    reset_rings(fresh.rings);
  }
  // Never taken from the file: a foreign radius could keep a walk going.
  for (int i = 0; i < vector_hash_rings; ++i)
    fresh.rings[i].radius = static_cast<float>(i) * ring_step;
}

}  // namespace

vector_hash_s* vector_hash_init(int dim, int anchor_len, unsigned width, vectpool_c* pool,
                                persistent_malloc_s* pm, long long base_key,
                                vector_hash_distance_fn distance, void* ctx) {
  if (dim < 1 || anchor_len < dim || pool == nullptr || pm == nullptr) return nullptr;
  hash_blocks blocks{};
  blocks.record = obtain(pm, base_key, sizeof(vector_hash_s));
  blocks.anchor = obtain(pm, base_key + 1, static_cast<std::uint64_t>(anchor_len) * sizeof(float));
  blocks.rings = obtain(pm, base_key + 2, sizeof(vector_hash_link_s) * vector_hash_rings);
  // A slot of a new hash is left unused, so that id 0 never names an array. One that comes back needs no more room.
  unsigned unused = 0;
  const bool pool_ready =
      (blocks.rings.loaded && pool->size() != 0) || pool->alloc(&unused, 1) != nullptr;
  auto* l2 = new (std::nothrow) DistanceL2Square(dim);
  if (!blocks.complete() || !pool_ready || l2 == nullptr) {
    delete l2;
    release(pm, blocks);
    return nullptr;
  }
  vector_hash_s fresh{};
  fresh.anchor = static_cast<float*>(blocks.anchor.data);
  fresh.pool = pool;
  fresh.rings = static_cast<vector_hash_link_s*>(blocks.rings.data);
  fresh.dim = dim;
  fresh.anchor_len = anchor_len;
  fresh.distance = distance;
  fresh.ctx = ctx;
  fresh.width_wide = 4 * width;
  fresh.width_narrow = width;
  fresh.width_mid = 2 * width;
  fresh.ring_count = vector_hash_rings;
  fresh.l2 = l2;
  fresh.l2_fn = l2->get_distance_function();
  restore(fresh, blocks);
  // Written in one piece: a process that is killed while it opens an index must not leave a record
  // without its anchor.
  return new (blocks.record.data) vector_hash_s(fresh);
}

void vector_hash_set_scan(vector_hash_s* vh, vector_hash_scan_fn scan) {
  vh->scan = scan;
}

void vector_hash_destroy(vector_hash_s* vh, persistent_malloc_s* pm) {
  if (vh == nullptr) return;
  delete vh->l2;
  const hash_blocks blocks{{vh, true}, {vh->anchor, true}, {vh->rings, true}};
  vh->anchor = nullptr;
  vh->pool = nullptr;
  vh->rings = nullptr;
  vh->distance = nullptr;
  vh->ctx = nullptr;
  vh->l2 = nullptr;
  vh->l2_fn = nullptr;
  vh->scan = nullptr;
  release(pm, blocks);
}

vectpool_c* vector_hash_pool(int kind, vectpool_conf_s* conf) {
  return new vectpool_c(sizeof(vector_hash_star_s), vector_hash_block_bytes, 1, kind, conf);
}

void vector_hash_set_ep_id(vector_hash_s* vh, unsigned id, const float* v) {
  if (load(vh->ep_id) != 0) KORVEX_LOG("entry point was already set: %u\n", id);
  std::copy_n(v, vh->anchor_len, vh->anchor);
  store(vh->ep_id, static_cast<std::uint32_t>(id), std::memory_order_release);
}

int vector_hash_add_point(vector_hash_s* vh, vector_hash_node_s* node, vector_hash_node_s* answer) {
  clear_answer(answer);
  const float r = anchor_distance(vh, node);
  answer->ring = ring_of(r);
  answer->best = std::isnan(r) ? FLT_MAX : r;
  vector_hash_link_s& ring = vh->rings[answer->ring];
  store(ring.id, load(vh->ep_id));
  std::atomic_ref(ring.count).fetch_add(1, std::memory_order_relaxed);
  // There is one writer, so a plain test is enough; NaN fails both.
  if (node->aux < ring.low) store(ring.low, node->aux);
  if (node->aux > ring.high) store(ring.high, node->aux);
  return r > near_enough ? descend(vh, ring, node, answer) : 0;
}

int vector_hash_search(vector_hash_s* vh, vector_hash_node_s* query, vector_hash_node_s* answer) {
  clear_answer(answer);
  answer->ring = 0;
  // Without an anchor no ring has a point; it may be half written by the adding thread.
  if (load(vh->ep_id, std::memory_order_acquire) == 0) return 0;
  const float distance = anchor_distance(vh, query);
  const int g = ring_of(distance);
  const float r = std::isnan(distance) ? FLT_MAX : distance;
  answer->ring = g;
  answer->best = r;
  vector_hash_link_s& ring = vh->rings[g];
  if (!has_stars(ring)) return 0;
  answer->ring_count = static_cast<std::int32_t>(load(ring.count));
  answer->ring_high = std::atomic_ref(ring.high).load(std::memory_order_relaxed);
  answer->ring_low = std::atomic_ref(ring.low).load(std::memory_order_relaxed);
  carried_answer carried;
  for (const int next : {g, g - 1, g + 1}) {
    if (next < 0 || next >= vector_hash_rings) continue;
    if (carried.walk_on(vh, next, query, answer, r)) break;
  }
  return 0;
}

void vector_hash_search_few(vector_hash_s* vh, std::uint32_t most, vector_hash_node_s* query,
                            vector_hash_node_s* answer) {
  clear_answer(answer);
  if (load(vh->ep_id, std::memory_order_acquire) == 0) return;
  const int g = ring_of(anchor_distance(vh, query));
  for (const int ring : {g, g - 1, g + 1}) {
    if (ring < 0 || ring >= vector_hash_rings || !has_stars(vh->rings[ring])) continue;
    vector_hash_search_point(vh, vh->rings[ring], most, query, answer);
    if (answer->id != 0) return;
  }
}

}  // namespace korvex
