#include "engine/points.h"

#include <bit>

#include "runtime/log.h"

namespace korvex {

namespace {

// Public ids end one before the largest number, so that the internal id exists.
constexpr std::uint32_t no_public_id = 0xFFFFFFFFu;

std::uint64_t* label_word(hnsw_s* hnsw, std::uint32_t public_id) {
  void* const word =
      public_id == no_public_id ? nullptr : record_of(*hnsw->runtime, label_store, public_id + 1);
  if (word == nullptr) KORVEX_LOG("*** BUG *** null label buffer for id: %u\n", public_id);
  return static_cast<std::uint64_t*>(word);
}

bool is_lost(const korvex_runtime_s& runtime, std::uint32_t id) {
  const graph_record graph = graph_of(runtime, id);
  return graph && graph.unlinkable();
}

bool labels_on(const hnsw_s* hnsw) {
  return hnsw != nullptr && is_started(hnsw) && hnsw->runtime->labels;
}

}  // namespace

float graph_record::worst() const {
  return std::bit_cast<float>(
      std::atomic_ref<std::uint32_t>(words_[0]).load(std::memory_order_relaxed));
}

void graph_record::set_worst(float key) {
  std::atomic_ref<std::uint32_t>(words_[0]).store(std::bit_cast<std::uint32_t>(key),
                                                  std::memory_order_relaxed);
}

void graph_record::clear_handover() {
  for (std::uint32_t word = 0; word < 5; ++word)
    std::atomic_ref<std::uint32_t>(words_[word]).store(0, std::memory_order_relaxed);
}

std::uint8_t set_flags(const korvex_runtime_s& runtime, std::uint32_t id, std::uint8_t bits) {
  std::uint8_t* const flags = flags_of(runtime, id);
  if (flags == nullptr) return 0;
  const std::uint8_t before = std::atomic_ref<std::uint8_t>(*flags).fetch_or(bits);
  if ((before & flags_hidden) == 0 && (bits & flags_hidden) != 0) runtime.hidden.fetch_add(1);
  return before;
}

std::uint8_t clear_flags(const korvex_runtime_s& runtime, std::uint32_t id, std::uint8_t bits) {
  std::uint8_t* const flags = flags_of(runtime, id);
  if (flags == nullptr) return 0;
  const auto kept = static_cast<std::uint8_t>(~bits);
  const std::uint8_t before = std::atomic_ref<std::uint8_t>(*flags).fetch_and(kept);
  if ((before & flags_hidden) != 0 && (before & kept & flags_hidden) == 0)
    runtime.hidden.fetch_sub(1);
  return before;
}

void count_hidden(hnsw_s* hnsw) {
  const std::uint32_t added = load_counter(hnsw->added);
  std::uint32_t hidden = 0;
  for (std::uint32_t id = 1; id <= added; ++id) {
    const std::uint8_t* const flags = flags_of(*hnsw->runtime, id);
    hidden += flags != nullptr && (*flags & flags_hidden) != 0 ? 1 : 0;
  }
  hnsw->runtime->hidden.store(hidden);
}

int korvex_is_flag_set_internal(hnsw_s* hnsw, std::uint32_t id, int mask) {
  if (hnsw == nullptr || !is_started(hnsw)) return 0;
  std::uint8_t* const flags = flags_of(*hnsw->runtime, id);
  if (flags == nullptr) return 0;
  return (std::atomic_ref<std::uint8_t>(*flags).load(std::memory_order_acquire) & mask) != 0 ? 1
                                                                                             : 0;
}

std::uint32_t* korvex_get_list(hnsw_s* hnsw, std::uint32_t id) {
  if (hnsw == nullptr || !is_started(hnsw)) return nullptr;
  auto* const record = static_cast<std::uint32_t*>(record_of(*hnsw->runtime, graph_store, id));
  return record == nullptr ? nullptr : record + 1;
}

std::uint64_t korvex_get_label(hnsw_s* hnsw, std::uint32_t id) {
  if (!labels_on(hnsw)) return 0;
  std::uint64_t* const word = label_word(hnsw, id);
  return word == nullptr ? 0 : std::atomic_ref<std::uint64_t>(*word).load();
}

std::uint64_t korvex_set_label(hnsw_s* hnsw, std::uint32_t id, std::uint64_t label) {
  if (!labels_on(hnsw)) return 0;
  std::uint64_t* const word = label_word(hnsw, id);
  if (word == nullptr) return 0;
  const std::uint64_t before = std::atomic_ref<std::uint64_t>(*word).exchange(label);
  const bool lost = is_lost(*hnsw->runtime, id + 1);
  clear_flags(*hnsw->runtime, id + 1, lost ? flag_data : flag_data | flag_deleted);
  return before;
}

bool korvex_change_label(hnsw_s* hnsw, std::uint32_t id, std::uint64_t label) {
  if (!labels_on(hnsw) || id >= load_counter(hnsw->added)) return false;
  std::uint64_t* const word = label_word(hnsw, id);
  if (word == nullptr) return false;
  std::atomic_ref<std::uint64_t>(*word).store(label);
  return true;
}

void korvex_set_data(hnsw_s* hnsw, std::uint32_t id, void* data, int) {
  if (!labels_on(hnsw)) return;
  std::uint64_t* const word = label_word(hnsw, id);
  if (word == nullptr) return;
  std::atomic_ref<std::uint64_t>(*word).store(reinterpret_cast<std::uintptr_t>(data));
  set_flags(*hnsw->runtime, id + 1, flag_data);
}

int korvex_delete(hnsw_s* hnsw, std::uint32_t id, int undelete) {
  if (hnsw == nullptr || !is_started(hnsw) || id >= load_counter(hnsw->added) ||
      flags_of(*hnsw->runtime, id + 1) == nullptr)
    return -1;
  if (undelete == 0) {
    set_flags(*hnsw->runtime, id + 1, flag_deleted);
    return 0;
  }
  if (is_lost(*hnsw->runtime, id + 1)) return -1;
  clear_flags(*hnsw->runtime, id + 1, flag_deleted);
  return 0;
}

std::uint32_t probe_seed(const hnsw_s* hnsw, std::uint32_t probe) {
  return probe < max_probes ? load_counter(hnsw->probes[probe].seed) : 0;
}

std::uint32_t probe_of(const hnsw_s* hnsw, std::uint32_t id) {
  const std::uint32_t probes = hnsw->runtime->probe_count;
  return id <= probes ? id - 1 : id % probes;
}

bool is_seed(const hnsw_s* hnsw, std::uint32_t id) {
  if (id > load_counter(hnsw->max_seed)) return false;
  for (std::uint32_t probe = 0; probe < hnsw->runtime->probe_count; ++probe)
    if (probe_seed(hnsw, probe) == id) return true;
  return false;
}

bool same_probe(const hnsw_s* hnsw, std::uint32_t a, std::uint32_t b) {
  return hnsw->norm_probing != 0 || probe_of(hnsw, a) == probe_of(hnsw, b);
}

std::uint32_t usable_entry(const hnsw_s* hnsw, std::uint32_t entry, std::uint32_t seed) {
  if (entry != 0 && !same_probe(hnsw, entry, seed)) return seed;
  while (entry != 0 && !is_seed(hnsw, entry)) {
    const graph_record graph = graph_of(*hnsw->runtime, entry);
    if (!graph) return seed;
    const std::uint32_t handed_over = graph.slot(1);
    if (graph.slot(0) != 0) return entry;
    if (handed_over >= entry) return seed;  // entries are older than what they lead to
    entry = handed_over;
  }
  return entry != 0 ? entry : seed;
}

}  // namespace korvex
