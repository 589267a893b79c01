#include <algorithm>
#include <cmath>
#include <cstring>

#include "engine/repair_parts.h"
#include "math/kernels.h"
#include "runtime/log.h"
#include "storage/vector_hash_repair.h"

namespace korvex {

namespace {

// A probe whose first point was lost still needs a place where its points begin: the lost one gets
// the direction of the reserved point and stays hidden.
void make_hidden_seed(repair_s* repair, std::uint32_t id) {
  korvex_runtime_s& runtime = repair->runtime;
  auto* const vector = static_cast<float*>(record_of(runtime, vector_store, id));
  const float length = normalize_vector(vector_of(runtime, 0), vector, repair->hnsw->dimension);
  *static_cast<float*>(record_of(runtime, magnitude_store, id)) =
      magnitude_word(length != 0.0f ? 1.0f : 0.0f);
  graph_of(runtime, id).set_slot(3, seed_marker);
  repair->lost[id] = false;
}

class hash_repair {
 public:
  hash_repair(repair_s* repair, std::uint32_t probe)
      : repair_(*repair),
        hnsw_(repair->hnsw),
        runtime_(repair->runtime),
        probe_(probe),
        hash_(runtime_.hash[probe]),
        seed_(probe_seed(hnsw_, probe)) {}

  // How much had to go.
  std::uint32_t run(std::vector<bool>* claimed) {
    if (seed_ != 0 && has_anchor())
      return vector_hash_mend(hash_, claimed, [this](std::uint32_t id) { return belongs(id); });
    fill_anew();
    return 0;
  }

 private:
  bool belongs(std::uint32_t id) const {
    return repair_.usable(id) && id != seed_ && repair_.in_probe(id, probe_);
  }

  float* unit() const { return runtime_.unit_scratch.get(); }

  bool has_anchor() const {
    constexpr float tolerance = 0.001f;
    if (hash_->ep_id != seed_) return false;
    normalize_vector(vector_of(runtime_, seed_), unit(), hnsw_->dimension);
    return std::equal(unit(), unit() + hnsw_->dimension, hash_->anchor,
                      [](float a, float b) { return a == b || !(std::fabs(a - b) > tolerance); });
  }

  void fill_anew() {
    if (seed_ == 0) return vector_hash_begin_anew(hash_, nullptr);
    normalize_vector(vector_of(runtime_, seed_), unit(), hnsw_->dimension);
    vector_hash_begin_anew(hash_, unit());
    for (std::uint32_t id = seed_ + 1; id < repair_.size; ++id)
      if (belongs(id)) add(id);
    vector_hash_finish(hash_, seed_);
  }

  void add(std::uint32_t id) {
    vector_hash_node_s node;
    node.id = id;
    node.query = vector_of(runtime_, id);
    node.aux = normalize_vector(node.query, unit(), hnsw_->dimension);
    node.vector = unit();
    vector_hash_node_s answer;
    vector_hash_add_point(hash_, &node, &answer);
  }

  const repair_s& repair_;
  hnsw_s* const hnsw_;
  korvex_runtime_s& runtime_;
  const std::uint32_t probe_;
  vector_hash_s* const hash_;
  const std::uint32_t seed_;
};

}  // namespace

void mend_seeds(repair_s* repair) {
  hnsw_s* const hnsw = repair->hnsw;
  hnsw->max_seed = 0;
  for (std::uint32_t probe = 0; probe < repair->runtime.probe_count; ++probe) {
    std::uint32_t& seed = hnsw->probes[probe].seed;
    // Points take turns: the first ones open their probes.
    if (hnsw->norm_probing == 0) seed = probe + 1;
    if (seed >= repair->size) seed = 0;
    if (seed != 0 && !repair->usable(seed)) make_hidden_seed(repair, seed);
    hnsw->max_seed = std::max(hnsw->max_seed, seed);
  }
  if (hnsw->norm_probing == 0) hnsw->probes_made = hnsw->max_seed;
}

void mend_hashes(repair_s* repair) {
  // Of the arrays that were there: a hash that is filled anew makes more.
  std::vector<bool> claimed(repair->runtime.star_pool->size());
  std::uint32_t removed = 0;
  for (std::uint32_t probe = 0; probe < repair->runtime.probe_count; ++probe)
    removed += hash_repair(repair, probe).run(&claimed);
  if (removed != 0) KORVEX_LOG("repaired the stars: %u removed\n", removed);
}

}  // namespace korvex
