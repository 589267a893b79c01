#include "engine/walk.h"

#include <algorithm>
#include <atomic>

#include "engine/points.h"
#include "engine/runtime.h"
#include "engine/scoring.h"
#include "runtime/log.h"

namespace korvex {

namespace {

constexpr int self_expanded_line = 773;
constexpr std::int32_t pass_over_evaluations = 1024;

std::atomic<std::uint64_t> evaluations_of_process{0};

// One walk. Keys order everything: the metric's direction was applied where a distance came in.
class graph_walk {
 public:
  graph_walk(hnsw_s* hnsw, korvex_session_s* session, walk_beam* beam, const korvex_node_s& node,
             shared_bound_s* shared, walk_report* report)
      : hnsw_(hnsw),
        runtime_(*hnsw->runtime),
        session_(*session),
        beam_(*beam),
        node_(node),
        shared_(runtime_.probe_count > 1 ? shared : nullptr),
        report_(*report),
        vectors_(runtime_.store[vector_store]->manager()),
        graphs_(runtime_.store[graph_store]->manager()),
        scorer_(runtime_),
        direction_(runtime_.direction.load(std::memory_order_relaxed)),
        neighbour_count_(runtime_.neighbour_count),
        beam_size_(static_cast<std::uint32_t>(std::max(session->beam, 1))),
        querying_(session->mode != 0) {}

  void run(std::uint32_t entry_id) {
    session_.duplicate = 0;
    session_.index = hnsw_;
    if (session_.step == 0) session_.step = static_cast<std::int32_t>(16 * neighbour_count_);
    removes_duplicates_ = !querying_ && duplicate_removal_on();
    radius_active_ = querying_ && beam_.size() != 0 && session_.radius_set;
    restricted_ = radius_active_ || (querying_ && session_.filter != nullptr);
    if (!seed(entry_id)) return;
    mark_beam_visited();
    while (step()) {
    }
  }

 private:
  // One round: trim, bound, pick, expand. False ends the walk.
  bool step() {
    if (stopping()) return false;
    trim();
    update_bound();
    const std::uint32_t first = beam_.first_unexpanded();
    if (first == beam_.size()) return false;
    if (shared_ != nullptr && bound_ < beam_[first].key) {
      beam_.set_expanded(first);
      return false;
    }
    graph_record graph;
    const std::uint32_t position = pick(first, &graph);
    if (!graph) return break_off();
    if (!expand(position, graph)) return false;
    if (!filled_ && beam_.size() >= beam_size_) first_fill();
    return true;
  }

  bool stopping() const {
    const std::uint32_t& flag = querying_ ? hnsw_->stop_searching : hnsw_->stop_indexing;
    return std::atomic_ref<std::uint32_t>(const_cast<std::uint32_t&>(flag))
               .load(std::memory_order_relaxed) != 0;
  }

  bool duplicate_removal_on() const {
    return hnsw_->duplicate_mode != 0 && hnsw_->duplicate_option != 0 &&
           hnsw_->duplicate_threshold != threshold_off;
  }

  bool repeats(float key) const {
    return removes_duplicates_ && key <= direction_ * hnsw_->duplicate_threshold;
  }

  const float* vector_at(std::uint32_t id) const {
    return id < vector_count(vectors_) ? static_cast<const float*>(vector_get(vectors_, id))
                                       : nullptr;
  }

  bool report_missing(std::uint32_t id) {
    KORVEX_LOG("*** BUG *** null buffer for id: %u\n", id);
    return break_off();
  }

  bool break_off() {
    report_.broken_off = true;
    return false;
  }

  bool seed(std::uint32_t entry_id) {
    if (querying_ && beam_.size() != 0) {
      best_ = beam_[0].key;
      return true;
    }
    if (entry_id == 0) {
      KORVEX_LOG("*** BUG *** zero id passed to candidtae\n");
      return break_off();
    }
    const float* const vector = vector_at(entry_id);
    if (vector == nullptr) return report_missing(entry_id);
    best_ = key_of(direction_, scorer_.score(node_.vector, vector));
    if (repeats(best_)) {
      session_.duplicate = entry_id;
      session_.duplicate_was_hidden =
          (set_flags(runtime_, entry_id, flag_duplicate) & flag_duplicate) != 0;
    }
    return beam_.insert(best_, entry_id, 0);
  }

  void mark_beam_visited() {
    for (std::uint32_t i = 0; i < beam_.size(); ++i) bitstore_set(session_.visited, beam_[i].id);
    report_.dropped_count = 0;
  }

  void trim() {
    if (beam_.size() <= beam_size_) return;
    report_.dropped_count = 0;
    while (beam_.size() > beam_size_) {
      if (querying_ && report_.dropped_count < static_cast<std::int32_t>(max_dropped))
        report_.dropped[report_.dropped_count++] = beam_.back().id;
      beam_.pop_back();
    }
  }

  void update_bound() {
    if (beam_.size() != 0) bound_ = beam_.back().key;
    if (shared_ == nullptr || !filled_) return;
    std::atomic_ref<float> worst(shared_->worst);
    float current = worst.load(std::memory_order_relaxed);
    while (bound_ < current &&
           !worst.compare_exchange_weak(current, bound_, std::memory_order_relaxed)) {
    }
    if (current < bound_) bound_ = current;
  }

  // The candidate to expand: the first unexpanded one, or one behind it when that has no neighbours
  // yet and others have some. *graph is empty when the record is missing.
  std::uint32_t pick(std::uint32_t first, graph_record* graph) const {
    *graph = graph_at(beam_[first].id);
    if (!*graph || graph->slot(0) != 0) return first;
    if (beam_.size() < 2 || report_.evaluations >= pass_over_evaluations) return first;
    for (std::uint32_t i = first + 1; i < beam_.size(); ++i) {
      if (beam_.is_expanded(i)) continue;
      const graph_record other = graph_at(beam_[i].id);
      if (!other || other.slot(0) == 0) continue;
      *graph = other;
      return i;
    }
    return first;
  }

  graph_record graph_at(std::uint32_t id) const {
    if (id < vector_count(graphs_)) return graph_record(vector_get(graphs_, id));
    KORVEX_LOG_CRITICAL("get graph failed for id: %u\n", id);
    return {};
  }

  bool expand(std::uint32_t position, const graph_record& graph) {
    const walk_beam::entry chosen = beam_[position];
    beam_.set_expanded(position);
    if (session_.budget != 0 && filled_ && report_.evaluations > session_.budget) return false;
    const std::uint32_t id = chosen.id;
    bitstore_set(session_.visited, id);
    if (id == node_.id && runtime_.indexing_threads < 2) {
      KORVEX_LOG("*** BUG *** bad nid: id %u n->id %u line %d\n", node_.id, id, self_expanded_line);
      return break_off();
    }
    if (graph.slot(0) == 0 && !is_seed(hnsw_, id)) return report_waiting(id, graph);
    hops_ = static_cast<std::uint16_t>(chosen.hops + 1);
    expect_next();
    for (std::uint32_t slot = 0; slot < neighbour_count_;) {
      slot = gather(graph, slot);
      if (!score()) return false;
    }
    return true;
  }

  bool report_waiting(std::uint32_t id, const graph_record& graph) const {
    KORVEX_LOG("waiting: nid %u id %u l %p wcount %d nodes %d, sc %d maxep %u completed %u\n",
               node_.id, id, graph.address(), static_cast<int>(beam_.size()),
               static_cast<int>(load_counter(hnsw_->added)), report_.evaluations,
               load_counter(hnsw_->max_seed), load_counter(hnsw_->networked));
    return false;
  }

  // The record of the candidate that comes next unless this hop finds a nearer one.
  void expect_next() {
    const std::uint32_t next = beam_.first_unexpanded();
    next_key_ = next < beam_.size() ? beam_[next].key : largest_float;
    if (next < beam_.size()) prefetch_graph(beam_[next].id);
  }

  void prefetch_graph(std::uint32_t id) const {
    if (id < vector_count(graphs_))
      prefetch_range(vector_get(graphs_, id),
                     static_cast<std::uint32_t>((neighbour_count_ + 1) * sizeof(std::uint32_t)));
  }

  // Collects neighbours from slot `first` on that this walk meets for the first time, and asks for
  // the vectors that are compared first. The slot to go on from.
  std::uint32_t gather(const graph_record& graph, std::uint32_t first) {
    const std::uint32_t end = std::min(first + gather_capacity, neighbour_count_);
    const vector_view vectors(vectors_);
    bitstore_s* const visited = session_.visited;
    const std::uint32_t own = node_.id;
    std::uint32_t slot = first;
    std::uint32_t count = 0;
    asked_count_ = 0;
    while (slot < end) {
      const std::uint32_t stop = std::min(slot + gather_step, end);
      for (; slot < stop; ++slot) {
        const std::uint32_t id = graph.slot(slot);
        if (id == 0) break;
        gathered_[count] = id;
        // One that was added since then is looked up anew.
        rows_[count] = vectors.has(id) ? static_cast<const float*>(vectors.get(id)) : vector_at(id);
        count += id != own && bitstore_set(visited, id) == 0 ? 1 : 0;
      }
      gathered_count_ = count;
      ask_for_rows(scorer_.lead());
      if (slot < stop) return neighbour_count_;
    }
    return end;
  }

  // Rows below `end` that nobody has asked for yet.
  void ask_for_rows(std::uint32_t end) {
    for (end = std::min(end, gathered_count_); asked_count_ < end; ++asked_count_)
      if (rows_[asked_count_] != nullptr) scorer_.prefetch(rows_[asked_count_]);
  }

  // Compares a few at a time and takes them in, while the next few come from memory.
  bool score() {
    std::uint32_t known = 0;
    while (known < gathered_count_ && rows_[known] != nullptr) ++known;
    for (std::uint32_t first = 0; first < known; first += score_step) {
      const std::uint32_t end = std::min(first + score_step, known);
      ask_for_rows(end + scorer_.lead());
      scorer_.score_fetched(node_.vector, rows_ + first, end - first, distances_);
      for (std::uint32_t i = first; i < end; ++i) {
        ++report_.evaluations;
        if (!offer(gathered_[i], key_of(direction_, distances_[i - first]))) return false;
      }
    }
    if (known == gathered_count_) return true;
    ++report_.evaluations;
    return report_missing(gathered_[known]);
  }

  // Takes a candidate into the beam unless it cannot matter. False ends the walk.
  bool offer(std::uint32_t id, float key) {
    if (restricted_ && rejects(id, key)) return true;
    if (key > bound_ && beam_.size() >= beam_size_) return true;
    if (!beam_.insert(key, id, hops_)) {
      KORVEX_LOG_CRITICAL("failed adding to list: id %u nid %u lid %u i %d\n", id, node_.id,
                          beam_.back().id, static_cast<int>(beam_.size()));
      return break_off();
    }
    if (key <= next_key_) {
      next_key_ = key;
      prefetch_graph(id);
    }
    return key >= best_ || improve(key);
  }

  bool rejects(std::uint32_t id, float key) const {
    if (radius_active_ && key < session_.radius) return true;
    return querying_ && session_.filter != nullptr &&
           session_.filter(session_.filter_context, id, 0) != 0;
  }

  bool improve(float key) {
    if (session_.budget != 0 && session_.step != 0)
      session_.budget = std::max(session_.budget, session_.step + report_.evaluations);
    if (repeats(key)) {
      KORVEX_LOG("duplicate detected: %u dist %.6f threshold %.6f\n", node_.id,
                 static_cast<double>(direction_ * key),
                 static_cast<double>(hnsw_->duplicate_threshold));
      return false;
    }
    best_ = key;
    return true;
  }

  void first_fill() {
    filled_ = true;
    if (session_.extension == 0) return;
    const std::int32_t granted = session_.extension + report_.evaluations;
    session_.budget = session_.budget != 0 ? std::min(session_.budget, granted) : granted;
  }

  static constexpr std::uint32_t gather_capacity = 64;
  static constexpr std::uint32_t gather_step = 4;
  static constexpr std::uint32_t score_step = 4;
  hnsw_s* const hnsw_;
  const korvex_runtime_s& runtime_;
  korvex_session_s& session_;
  walk_beam& beam_;
  const korvex_node_s node_;
  shared_bound_s* const shared_;
  walk_report& report_;
  const vector_manager_s* const vectors_;
  const vector_manager_s* const graphs_;
  const row_scorer scorer_;
  const float direction_;
  const std::uint32_t neighbour_count_;
  const std::uint32_t beam_size_;
  const bool querying_;
  bool removes_duplicates_ = false;
  bool radius_active_ = false;
  bool restricted_ = false;  // not all that is near enough is wanted
  bool filled_ = false;
  float bound_ = largest_float;
  float best_ = largest_float;
  float next_key_ = largest_float;  // of the candidate that is expected to be expanded next
  std::uint16_t hops_ = 0;
  std::uint32_t gathered_count_ = 0;
  std::uint32_t asked_count_ = 0;  // of the gathered ones, their vectors are on their way
  std::uint32_t gathered_[gather_capacity];
  const float* rows_[gather_capacity];
  float distances_[score_step];
};

void load_beam(const korvex_nbrs_s& nbrs, walk_beam* beam) {
  for (const linklist_link_s* link = nbrs.candidates->get_head(); link != nullptr;
       link = link->next) {
    const auto* const element = static_cast<const korvex_nelem_s*>(link->data);
    beam->append({element->distance, element->id, element->hops,
                  static_cast<std::uint16_t>(link->tag & 0xFFFFu)});
  }
}

// From the back: each element becomes the new head, so equal keys keep their order and no insertion
// searches.
void publish_beam(const walk_beam& beam, korvex_nbrs_s* nbrs) {
  blockpool_reset(nbrs->elements);
  nbrs->candidates->reset();
  for (std::uint32_t i = beam.size(); i-- > 0;) {
    const walk_beam::entry entry = beam[i];
    if (korvex_nbrs_add(nbrs, entry.id, entry.key, entry.hops, entry.marks) == 0) continue;
    KORVEX_LOG_CRITICAL("failed adding to list: id %u nid %u lid %u i %d\n", entry.id, 0u, entry.id,
                        static_cast<int>(i));
    nbrs->broken_off = true;
    return;
  }
}

}  // namespace

void walk_graph(hnsw_s* hnsw, korvex_session_s* session, walk_beam* beam, const korvex_node_s& node,
                std::uint32_t entry_id, shared_bound_s* shared, walk_report* report) {
  graph_walk(hnsw, session, beam, node, shared, report).run(entry_id);
  evaluations_of_process.fetch_add(static_cast<std::uint64_t>(report->evaluations),
                                   std::memory_order_relaxed);
}

void korvex_search_candidates(hnsw_s* hnsw, korvex_session_s* session, korvex_nbrs_s* nbrs,
                              const korvex_node_s* node, std::uint32_t entry_id,
                              shared_bound_s* shared) {
  const auto held = static_cast<std::uint32_t>(nbrs->candidates->size());
  const auto beam_size = static_cast<std::uint32_t>(std::max(session->beam, 1));
  if (!nbrs->beam->reset(std::max(beam_size, held) + hnsw->runtime->neighbour_count + 1)) {
    KORVEX_LOG_CRITICAL("no memory for a walk of %u candidates\n", beam_size);
    nbrs->broken_off = true;
    return;
  }
  load_beam(*nbrs, nbrs->beam);
  walk_report report;
  walk_graph(hnsw, session, nbrs->beam, *node, entry_id, shared, &report);
  nbrs->broken_off = report.broken_off;
  publish_beam(*nbrs->beam, nbrs);
  nbrs->evaluations = report.evaluations;
  nbrs->dropped_count = report.dropped_count;
  std::copy_n(report.dropped, max_dropped, nbrs->dropped);
}

std::uint64_t walk_evaluations_total() {
  return evaluations_of_process.load(std::memory_order_relaxed);
}

}  // namespace korvex
