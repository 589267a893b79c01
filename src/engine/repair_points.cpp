#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "engine/repair_parts.h"
#include "math/kernels.h"
#include "runtime/log.h"

namespace korvex {

namespace {

class record_repair {
 public:
  explicit record_repair(repair_s* repair)
      : repair_(*repair), hnsw_(repair->hnsw), runtime_(repair->runtime) {
    for (std::uint32_t index = 0; index < store_count; ++index)
      if (runtime_.store[index] != nullptr) found_[index] = runtime_.store[index]->size();
  }

  void run() {
    complete_blocks();
    equalise_stores();
    repair_.lost.assign(repair_.size, false);
    for (std::uint32_t id = 1; id < repair_.size; ++id) {
      if (!whole(id)) {
        empty(id);
        ++repair_.lost_count;
      }
      repair_.lost[id] = emptied_before(id);
    }
  }

 private:
  // First of all: nothing may be written where the disk has no room for it. A block that was refused and is not needed
  // must not stay in its place; one that cannot be moved is in nobody's way yet.
  void complete_blocks() {
    runtime_.star_pool->set_refused_aside();
    for (vectpool_c* store : runtime_.store) {
      if (store == nullptr) continue;
      store->set_refused_aside();
      if (!store->complete_blocks())
        throw std::runtime_error("no room to repair the records of a store");
    }
  }

  void equalise_stores() {
    for (const vectpool_c* store : runtime_.store)
      if (store != nullptr) repair_.size = std::max<std::uint32_t>(repair_.size, store->size());
    for (vectpool_c* store : runtime_.store) {
      while (store != nullptr && store->size() < repair_.size) {
        unsigned id = 0;
        if (store->alloc(&id, 1) == nullptr)
          throw std::runtime_error("no room to complete the records of a store");
      }
    }
  }

  // An addition writes the magnitude after the vector, so a magnitude that fits tells that both are
  // there; one that was never written is 0 in all bits. What was on the device at the last sync
  // needs no such proof.
  bool whole(std::uint32_t id) {
    if (id >= found_[vector_store]) return false;
    auto* const stored = static_cast<float*>(record_of(runtime_, magnitude_store, id));
    const bool durable = id <= hnsw_->durable;
    if (durable && id < found_[magnitude_store]) return true;
    if (!durable && (id >= found_[magnitude_store] || bits_of(*stored) == 0)) return false;
    const float length = magnitude_word(
        normalize_vector(vector_of(runtime_, id), runtime_.unit_scratch.get(), hnsw_->dimension));
    if (!durable) return fits(*stored, length);
    *stored = length;  // the file of the magnitudes was lost
    return true;
  }

  static std::uint32_t bits_of(float value) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
  }

  static bool fits(float stored, float length) {
    constexpr float tolerance = 0.01f;  // kernels round in their own ways
    if (stored == length || (std::isnan(stored) && std::isnan(length))) return true;
    return std::fabs(stored - length) <= tolerance * length;
  }

  // A point that is no answer, leads nowhere and is never linked; it keeps its id.
  void empty(std::uint32_t id) {
    for (vectpool_c* store : runtime_.store)
      if (store != nullptr) std::memset(store->get(id), 0, store->record_size());
    *static_cast<float*>(record_of(runtime_, magnitude_store, id)) = magnitude_word(0.0f);
    graph_of(runtime_, id).set_slot(3, unlinkable_marker);
    set_flags(runtime_, id, flag_deleted);
  }

  bool emptied_before(std::uint32_t id) const {
    const std::uint8_t flags = std::atomic_ref<std::uint8_t>(*flags_of(runtime_, id)).load();
    return (flags & flag_deleted) != 0 && graph_of(runtime_, id).unlinkable();
  }

  repair_s& repair_;
  hnsw_s* const hnsw_;
  korvex_runtime_s& runtime_;
  std::uint32_t found_[store_count] = {};  // lengths before the repair
};

}  // namespace

void complete_records(repair_s* repair) {
  record_repair(repair).run();
  if (repair->lost_count != 0)
    KORVEX_LOG("repaired %u incomplete records, the index holds %u\n", repair->lost_count,
               repair->size - 1);
}

}  // namespace korvex
