#ifndef KORVEX_ENGINE_POINTS_H
#define KORVEX_ENGINE_POINTS_H

#include <atomic>
#include <cstdint>

#include "engine/runtime.h"

// Access to the per-point records by internal id. A record is missing when its id was never handed
// out; the stores themselves do not check.
namespace korvex {

inline constexpr std::uint8_t flag_data = 1;
inline constexpr std::uint8_t flag_deleted = 2;
inline constexpr std::uint8_t flag_duplicate = 4;
inline constexpr std::uint8_t flag_link_lock = 128;
inline constexpr std::uint8_t flags_hidden = flag_deleted | flag_duplicate;

// One point's neighbours in the graph store: the largest key among them, then neighbour_count ids;
// the first 0 ends the list. Readers take no lock: an id is stored with release only after all that
// it names is complete.
class graph_record {
 public:
  graph_record() = default;
  explicit graph_record(void* record) : words_(static_cast<std::uint32_t*>(record)) {}

  explicit operator bool() const { return words_ != nullptr; }
  std::uint32_t slot(std::uint32_t position) const {
    return std::atomic_ref<std::uint32_t>(words_[1 + position]).load(std::memory_order_acquire);
  }
  void set_slot(std::uint32_t position, std::uint32_t id) {
    std::atomic_ref<std::uint32_t>(words_[1 + position]).store(id, std::memory_order_release);
  }
  float worst() const;
  void set_worst(float key);
  void clear_handover();
  // The point never was complete: it keeps its id, is no answer and is never linked.
  bool unlinkable() const { return slot(0) == 0 && slot(3) == unlinkable_marker; }
  const void* address() const { return words_; }

 private:
  std::uint32_t* words_ = nullptr;
};

inline void* record_of(const korvex_runtime_s& runtime, store_index index, std::uint32_t id) {
  vectpool_c* const store = runtime.store[index];
  if (store == nullptr || id >= store->size()) return nullptr;
  return store->get(id);
}

inline const float* vector_of(const korvex_runtime_s& runtime, std::uint32_t id) {
  return static_cast<const float*>(record_of(runtime, vector_store, id));
}
inline graph_record graph_of(const korvex_runtime_s& runtime, std::uint32_t id) {
  return graph_record(record_of(runtime, graph_store, id));
}
inline std::uint8_t* flags_of(const korvex_runtime_s& runtime, std::uint32_t id) {
  return static_cast<std::uint8_t*>(record_of(runtime, flags_store, id));
}

// How a magnitude is stored: never as 0 in all bits, which tells that it was not written.
inline float magnitude_word(float length) {
  return length == 0.0f ? -0.0f : length;
}

// Sets or clears bits of a point's flags; the value before. 0 when the record is missing.
std::uint8_t set_flags(const korvex_runtime_s& runtime, std::uint32_t id, std::uint8_t bits);
std::uint8_t clear_flags(const korvex_runtime_s& runtime, std::uint32_t id, std::uint8_t bits);
// Counts the runtime's `hidden` anew. While nobody else changes flags.
void count_hidden(hnsw_s* hnsw);

// 1 when any bit of `mask` is set for the internal id; 0 when the record is missing.
int korvex_is_flag_set_internal(hnsw_s* hnsw, std::uint32_t id, int mask);

// The neighbour slots of an internal id, or null.
std::uint32_t* korvex_get_list(hnsw_s* hnsw, std::uint32_t id);

// Labels and deletion take public ids (internal id - 1). Threads: beside everything else.
std::uint64_t korvex_get_label(hnsw_s* hnsw, std::uint32_t id);
std::uint64_t korvex_set_label(hnsw_s* hnsw, std::uint32_t id, std::uint64_t label);
// Stores the label and leaves everything else as it is. False while labels are off or the id does
// not exist.
bool korvex_change_label(hnsw_s* hnsw, std::uint32_t id, std::uint64_t label);
void korvex_set_data(hnsw_s* hnsw, std::uint32_t id, void* data, int unused);
// A point that never was complete cannot be undeleted: -1, and a label does not bring it back either.
int korvex_delete(hnsw_s* hnsw, std::uint32_t id, int undelete);

// Whether a point is the first of its probe.
bool is_seed(const hnsw_s* hnsw, std::uint32_t id);
std::uint32_t probe_seed(const hnsw_s* hnsw, std::uint32_t probe);
// The probe of a point under round-robin placing.
std::uint32_t probe_of(const hnsw_s* hnsw, std::uint32_t id);

// Whether two points belong to one probe, as far as their numbers tell.
bool same_probe(const hnsw_s* hnsw, std::uint32_t a, std::uint32_t b);

// Where a walk that was sent to `entry` really starts: a point without neighbours that is no seed
// hands over to the entry it was itself linked from, and so on down to the probe's seed. Stays
// inside the probe; an entry from elsewhere, which only a damaged file names, counts for nothing.
std::uint32_t usable_entry(const hnsw_s* hnsw, std::uint32_t entry, std::uint32_t seed);

}  // namespace korvex

#endif  // KORVEX_ENGINE_POINTS_H
