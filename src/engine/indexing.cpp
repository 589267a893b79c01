#include "engine/indexing.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "engine/linking.h"
#include "engine/neighbours.h"
#include "engine/points.h"
#include "engine/runtime.h"
#include "engine/teardown.h"
#include "engine/walk.h"
#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "runtime/threads.h"

namespace korvex {

namespace {

constexpr unsigned visited_bits = 1'000'000;
constexpr std::uint64_t deferral_usec = 199;
constexpr std::uint64_t idle_wait_ms = 1'000;
constexpr std::uint64_t deferred_poll_usec = 100;

thread_local const korvex_runtime_s* indexing_for = nullptr;

struct claimed_point {
  std::uint32_t id = 0;
  handover_s handover{};
  bool relinked = false;  // its first linking was cut off by a crash
};

bool stopping(const hnsw_s* hnsw) {
  return load_counter(hnsw->stop_indexing) != 0;
}

void count_networked(hnsw_s* hnsw) {
  std::atomic_ref(hnsw->networked).fetch_add(1);
}

// The scratch of one linking thread, for its whole life: linking allocates nothing per point.
class linker {
 public:
  explicit linker(hnsw_s* hnsw) : hnsw_(hnsw), runtime_(*hnsw->runtime) {
    const int beam = std::max(runtime_.construction_beam, 100);
    candidates_ = korvex_nbrs_alloc(hnsw, 2 * beam);
    second_ = korvex_nbrs_alloc(hnsw, static_cast<int>(2 * runtime_.neighbour_count));
    session_.visited = bitstore_init(visited_bits);
    session_.beam = beam;
    int32find_init(&conmap_, static_cast<int>(std::max(1024u, 4 * runtime_.neighbour_count)),
                   "conmap");
  }
  ~linker() {
    korvex_nbrs_free(candidates_);
    korvex_nbrs_free(second_);
    if (session_.visited != nullptr) bitstore_free(session_.visited);
    int32find_free(&conmap_);
  }
  linker(const linker&) = delete;
  linker& operator=(const linker&) = delete;

  bool ready() const {
    return candidates_ != nullptr && second_ != nullptr && session_.visited != nullptr &&
           conmap_.capacity != 0;
  }

  // Walks from the entry; the key of the nearest candidate, or the largest float.
  float search(std::uint32_t id, std::uint32_t entry) {
    const float* const vector = vector_of(runtime_, id);
    korvex_nbrs_reset(hnsw_, candidates_);
    korvex_nbrs_reset(hnsw_, second_);
    bitstore_reset(session_.visited);
    session_.mode = 0;
    session_.duplicate = 0;
    if (vector == nullptr) {
      KORVEX_LOG("*** BUG *** null buffer for id: %u\n", id);
      return largest_float;
    }
    const korvex_node_s node{id, vector};
    korvex_search_candidates(hnsw_, &session_, candidates_, &node, entry, nullptr);
    const auto* const first =
        static_cast<const korvex_nelem_s*>(candidates_->candidates->peek_front());
    if (first == nullptr) return largest_float;
    // The walk tells of an entry that the point repeats; further on it only stops.
    if (session_.duplicate == 0 && repeats(first->distance)) {
      session_.duplicate = first->id;
      session_.duplicate_was_hidden =
          (set_flags(runtime_, first->id, flag_duplicate) & flag_duplicate) != 0;
    }
    return first->distance;
  }

  // The point that the last one repeats, marked as a duplicate since then; 0 for none.
  std::uint32_t duplicate_of() const { return session_.duplicate; }
  // Whether it had been marked before, so that another one stands for it.
  bool duplicate_was_hidden() const { return session_.duplicate_was_hidden; }

  void connect(std::uint32_t id) {
    int32find_reset(&conmap_);
    korvex_connect_nbrs(hnsw_, candidates_, second_, id, &conmap_);
  }

 private:
  bool repeats(float key) const {
    return hnsw_->duplicate_mode != 0 && hnsw_->duplicate_option != 0 &&
           hnsw_->duplicate_threshold != threshold_off &&
           key <= runtime_.direction.load(std::memory_order_relaxed) * hnsw_->duplicate_threshold;
  }

  hnsw_s* const hnsw_;
  korvex_runtime_s& runtime_;
  korvex_nbrs_s* candidates_ = nullptr;
  korvex_nbrs_s* second_ = nullptr;
  korvex_session_s session_{};
  int32find_s conmap_{};
};

handover_s read_handover(const korvex_runtime_s& runtime, std::uint32_t id) {
  const graph_record graph = graph_of(runtime, id);
  if (!graph) {
    // Counters name a point that no store holds: going on would damage what is there.
    KORVEX_LOG_CRITICAL("get graph failed for id: %u\n", id);
    log_wait_empty();
    std::abort();
  }
  return {graph.slot(0), graph.slot(1), graph.slot(2), graph.slot(3)};
}

bool has_neighbours(const korvex_runtime_s& runtime, std::uint32_t id) {
  const graph_record graph = graph_of(runtime, id);
  return graph && graph.slot(0) != 0;
}

// Under add_lock: the linking of the id is over. An entry that got no neighbours by then never will
// of its own, and must not be waited for.
bool settled(const hnsw_s* hnsw, std::uint32_t id) {
  const korvex_runtime_s& runtime = *hnsw->runtime;
  if (id > hnsw->taken) return false;
  const auto before = [](const handover_s& waiting, std::uint32_t value) {
    return waiting.star < value;
  };
  const auto queued = std::lower_bound(runtime.relink.begin(), runtime.relink.end(), id, before);
  if (queued != runtime.relink.end() && queued->star == id) return false;
  if (std::find(runtime.in_flight.begin(), runtime.in_flight.end(), id) != runtime.in_flight.end())
    return false;
  return std::none_of(runtime.deferred, runtime.deferred + runtime.deferred_count,
                      [id](const deferred_s& waiting) { return waiting.id == id; });
}

// Links one point from its hand-over; counts it whatever comes of it.
class point_linking {
 public:
  point_linking(hnsw_s* hnsw, linker* tools)
      : hnsw_(hnsw), runtime_(*hnsw->runtime), tools_(*tools) {}

  void link(const claimed_point& point) {
    const std::uint32_t seed = probe_seed(hnsw_, probe_of(hnsw_, point.id));
    if (point.handover.entry == 0)
      KORVEX_LOG("*** BUG *** ep_id not passed to thread: nid %u l %p\n", point.id,
                 graph_of(runtime_, point.id).address());
    const std::uint32_t entry =
        point.handover.entry == 0 ? 0 : usable_entry(hnsw_, point.handover.entry, seed);
    if (entry != 0 && entry != point.id) {
      nearest_key_ = tools_.search(point.id, entry);
      if (stopping(hnsw_)) return;
      const bool repeats = tools_.duplicate_of() != 0 && point.id > runtime_.probe_count;
      if (!repeats || !leave_unlinked(point)) tools_.connect(point.id);
      if (stopping(hnsw_)) return;
    }
    count_networked(hnsw_);
  }

  void link_duplicates_too() { links_duplicates_ = true; }
  float nearest_key() const { return nearest_key_; }

 private:
  // Of a point and its copies one stays visible. The original is marked by now: the mark moves to
  // the copy, which is not linked then; inline linking, and a copy of a deleted point, leave it. An
  // original that had been hidden before has somebody else to stand for both.
  bool leave_unlinked(const claimed_point& point) {
    const std::uint32_t id = point.id;
    const std::uint32_t original = tools_.duplicate_of();
    const bool hidden = tools_.duplicate_was_hidden();
    // The crash may have come between marking the original and moving the mark: nobody else is
    // sure to stand for both.
    if (hidden && point.relinked) return false;
    const bool deleted = korvex_is_flag_set_internal(hnsw_, original, flag_deleted) != 0;
    if (!hidden && (links_duplicates_ || deleted)) return false;
    set_flags(runtime_, id, flag_duplicate);
    if (!hidden) clear_flags(runtime_, original, flag_duplicate);
    if (links_duplicates_) return false;
    std::atomic_ref(hnsw_->duplicates).fetch_add(1);
    return true;
  }

  hnsw_s* const hnsw_;
  korvex_runtime_s& runtime_;
  linker& tools_;
  bool links_duplicates_ = false;
  float nearest_key_ = largest_float;
};

bool needs_no_linking(const hnsw_s* hnsw, const claimed_point& point) {
  return point.handover.marker == seed_marker || point.handover.marker == unlinkable_marker ||
         is_seed(hnsw, point.id);
}

// An indexing thread: takes points under add_lock, links them, and ends itself when nothing comes
// for a while.
class indexing_thread {
 public:
  explicit indexing_thread(hnsw_s* hnsw) : hnsw_(hnsw), runtime_(*hnsw->runtime) {}

  void run() {
    linker tools(hnsw_);
    if (!tools.ready()) {
      KORVEX_LOG_CRITICAL("no memory for an indexing thread\n");
      retire_without_work();
      return;
    }
    const int slot = korvex_get_thread_index(hnsw_);
    point_linking linking(hnsw_, &tools);
    claimed_point point;
    while (next(&point)) {
      if (needs_no_linking(hnsw_, point)) {
        count_networked(hnsw_);
      } else if (point.relinked || !defer(point)) {
        linking.link(point);
      }
      finish(point.id);
      korvex_notify_ready(hnsw_);
    }
    korvex_free_thread_index(hnsw_, slot);
  }

 private:
  void finish(std::uint32_t id) {
    std::lock_guard lock(runtime_.add_lock);
    std::erase(runtime_.in_flight, id);
  }

  // Waits for a point. False when the thread is to end; it is no longer counted as running then.
  bool next(claimed_point* point) {
    std::uint64_t idle_since = platform::time_ms();
    while (true) {
      bool waits_for_entries = false;
      {
        std::lock_guard lock(runtime_.add_lock);
        if (!stopping(hnsw_) && take(point)) return true;
        waits_for_entries = runtime_.deferred_count != 0;
        const bool idle_too_long = platform::time_ms() - idle_since >= idle_wait_ms;
        const bool may_go =
            !waits_for_entries && (idle_too_long || runtime_.stop_adding.load() != 0);
        if ((may_go || stopping(hnsw_)) && retire()) return false;
        announce_wait();
      }
      wait(waits_for_entries);
      runtime_.cond_waiters.fetch_sub(1);
    }
  }

  // Under add_lock. Counted before the last look at `added` and the stop flag: who changes one of
  // them after that look sees the count, or sets the condition after it was reset here.
  void announce_wait() {
    runtime_.cond_waiters.fetch_add(1);
    cond_reset(&runtime_.add_cond);
  }

  void wait(bool waits_for_entries) {
    if (stopping(hnsw_) || untaken()) return;
    if (waits_for_entries)
      platform::sleep_usec(deferred_poll_usec);
    else
      cond_wait_timeout(&runtime_.add_cond, idle_wait_ms);
  }

  bool untaken() const {
    return std::atomic_ref(hnsw_->added).load() != std::atomic_ref(hnsw_->taken).load();
  }

  // Under add_lock. A publisher counts its point and then looks for threads; here the order is the
  // other way round, so one of the two sees the other. False: a point came, the thread stays.
  bool retire() {
    runtime_.running_threads.fetch_sub(1);
    if (stopping(hnsw_) || !untaken()) return true;
    runtime_.running_threads.fetch_add(1);
    return false;
  }

  void retire_without_work() {
    std::lock_guard lock(runtime_.add_lock);
    runtime_.running_threads.fetch_sub(1);
  }

  // Under add_lock.
  bool take(claimed_point* point) {
    if (!take_deferred(point) && !take_relinked(point) && !claim(point)) return false;
    runtime_.in_flight.push_back(point->id);
    return true;
  }

  bool take_deferred(claimed_point* point) {
    const std::uint64_t now = platform::time_usec();
    for (std::uint32_t i = 0; i < runtime_.deferred_count; ++i) {
      const deferred_s waiting = runtime_.deferred[i];
      if (now - waiting.queued <= deferral_usec) continue;
      if (!has_neighbours(runtime_, waiting.entry) && !settled(hnsw_, waiting.entry)) continue;
      runtime_.deferred[i] = runtime_.deferred[--runtime_.deferred_count];
      *point = {waiting.id, {0, waiting.entry, 0, 0}};
      return true;
    }
    return false;
  }

  bool take_relinked(claimed_point* point) {
    if (runtime_.relink.empty()) return false;
    const handover_s waiting = runtime_.relink.front();
    runtime_.relink.pop_front();
    *point = {waiting.star, {0, waiting.entry, 0, 0}, true};
    return true;
  }

  bool claim(claimed_point* point) {
    if (runtime_.indexing_threads == 0) return false;  // additions link what is new
    const std::uint32_t taken = hnsw_->taken;
    if (taken == std::atomic_ref(hnsw_->added).load()) return false;
    std::atomic_ref(hnsw_->taken).store(taken + 1);
    *point = {taken + 1, read_handover(runtime_, taken + 1)};
    return true;
  }

  // A point is linked only after its entry point, except when the entry opens its probe.
  bool defer(const claimed_point& point) {
    const std::uint32_t entry = point.handover.entry;
    if (entry <= runtime_.probe_count || is_seed(hnsw_, entry) || has_neighbours(runtime_, entry))
      return false;
    std::lock_guard lock(runtime_.add_lock);
    if (runtime_.deferred_count == deferred_capacity || settled(hnsw_, entry)) return false;
    runtime_.deferred[runtime_.deferred_count++] = {point.id, entry, platform::time_usec()};
    return true;
  }

  hnsw_s* const hnsw_;
  korvex_runtime_s& runtime_;
};

void* korvex_indexing_thread(void* argument) {
  thread_detach_self();
  auto* const runtime = static_cast<korvex_runtime_s*>(argument);
  indexing_for = runtime;
  indexing_thread(runtime->hnsw).run();
  indexing_for = nullptr;
  runtime_release_use(runtime);
  return nullptr;
}

// Under the insert lock, when no indexing threads are configured.
void link_inline(hnsw_s* hnsw, std::uint32_t id) {
  korvex_runtime_s& runtime = *hnsw->runtime;
  std::atomic_ref(hnsw->taken).store(id);
  const claimed_point point{id, read_handover(runtime, id)};
  if (needs_no_linking(hnsw, point)) {
    count_networked(hnsw);
  } else {
    auto* const tools = static_cast<linker*>(runtime.inline_linker.get());
    point_linking linking(hnsw, tools);
    linking.link_duplicates_too();
    linking.link(point);
    if (linking.nearest_key() < largest_float)
      hnsw->linked_distance_sum +=
          static_cast<double>(runtime.direction.load() * linking.nearest_key());
  }
}

// Whether every id up to `last` is linked. Points that came later do not count.
bool linked_up_to(const hnsw_s* hnsw, std::uint32_t last) {
  if (load_counter(hnsw->networked) >= load_counter(hnsw->added)) return true;
  korvex_runtime_s& runtime = *hnsw->runtime;
  std::lock_guard lock(runtime.add_lock);
  if (hnsw->taken < last || !runtime.relink.empty()) return false;
  const auto unfinished = [last](std::uint32_t id) { return id <= last; };
  if (std::any_of(runtime.in_flight.begin(), runtime.in_flight.end(), unfinished)) return false;
  return std::none_of(runtime.deferred, runtime.deferred + runtime.deferred_count,
                      [&](const deferred_s& waiting) { return unfinished(waiting.id); });
}

// Whether points wait whose linking a crash had cut off.
bool any_cut_off(korvex_runtime_s& runtime) {
  std::lock_guard lock(runtime.add_lock);
  return !runtime.relink.empty();
}

// No thread runs and none can be made: the caller links.
void link_on_caller(hnsw_s* hnsw) {
  korvex_runtime_s& runtime = *hnsw->runtime;
  {
    std::lock_guard lock(runtime.add_lock);
    if (runtime.running_threads.load() != 0) return;
    runtime.running_threads.fetch_add(1);
    runtime.stop_adding.store(1);
  }
  const korvex_runtime_s* const before = indexing_for;
  indexing_for = &runtime;
  indexing_thread(hnsw).run();
  indexing_for = before;
}

// How long the waiting thread sleeps, from what is left and how fast it went.
class progress_estimate {
 public:
  progress_estimate(const hnsw_s* hnsw) : hnsw_(hnsw), last_(load_counter(hnsw->networked)) {}

  std::uint64_t next_sleep_ms() {
    const std::uint32_t networked = load_counter(hnsw_->networked);
    const std::uint32_t added = load_counter(hnsw_->added);
    const std::uint64_t now = platform::time_usec();
    if (networked > last_) {
      rate_ = static_cast<double>(now - since_) / (static_cast<double>(networked - last_) * 1000.0);
      last_ = networked;
      since_ = now;
    }
    const std::uint32_t left = added > networked ? added - networked : 0;
    const double estimate = std::min(static_cast<double>(left) * rate_, 4e9);
    const auto whole = static_cast<std::uint32_t>(estimate);
    const auto part = static_cast<std::uint32_t>(static_cast<double>(whole) * 0.75);
    if (round_++ > 0 && (whole > 10'000 || part >= 501))
      KORVEX_LOG("networked %u total %u estimated in %u ms (%.6f)\n", networked, added, whole,
                 rate_);
    if (whole == 0) return 1;
    return whole > 10'000 ? 10'000 : std::max(part, 1u);
  }

 private:
  const hnsw_s* const hnsw_;
  std::uint32_t last_;
  std::uint64_t since_ = platform::time_usec();
  double rate_ = 0.01;  // milliseconds a point
  std::uint32_t round_ = 0;
};

// Sleeps in short steps, so that a fast finish or a teardown ends the wait early.
void sleep_while_linking(hnsw_s* hnsw, std::uint32_t last, std::uint64_t ms) {
  const std::uint64_t end = platform::time_ms() + ms;
  do {
    platform::sleep_usec(ms <= 1 ? 200 : 1'000);
  } while (platform::time_ms() < end && !stopping(hnsw) && !linked_up_to(hnsw, last) &&
           hnsw->runtime->running_threads.load() != 0);
}

}  // namespace

bool korvex_prepare_linking(hnsw_s* hnsw) {
  korvex_runtime_s& runtime = *hnsw->runtime;
  if (runtime.indexing_threads != 0 || runtime.inline_linker) return true;
  auto tools = std::make_shared<linker>(hnsw);
  if (!tools->ready()) return false;
  runtime.inline_linker = std::move(tools);
  return true;
}

void korvex_publish(hnsw_s* hnsw, std::uint32_t id) {
  korvex_runtime_s& runtime = *hnsw->runtime;
  std::atomic_ref(hnsw->added).store(id);
  if (runtime.indexing_threads == 0) {
    link_inline(hnsw, id);
    return;
  }
  // All threads may have retired between the caller's look and the publication.
  korvex_launch_threads(hnsw, 1);
  if (runtime.cond_waiters.load() != 0) cond_broadcast(&runtime.add_cond);
}

void korvex_launch_threads(hnsw_s* hnsw, int n) {
  korvex_runtime_s& runtime = *hnsw->runtime;
  const auto wanted = static_cast<std::uint32_t>(runtime.indexing_threads);
  if (wanted == 0 || runtime.running_threads.load() >= wanted) return;
  std::lock_guard lock(runtime.add_lock);
  for (int i = 0; i < n && runtime.running_threads.load() < wanted; ++i) {
    runtime_use use(&runtime);
    if (!use || stopping(hnsw)) return;
    runtime.running_threads.fetch_add(1);
    if (create_thread(korvex_indexing_thread, &runtime) != 0) {
      runtime.running_threads.fetch_sub(1);
      return;
    }
    use.detach();
  }
}

int korvex_has_finish_adding(hnsw_s* hnsw) {
  if (hnsw == nullptr) return 0;
  if (!is_started(hnsw) || hnsw->runtime->indexing_threads == 0) return 1;
  return load_counter(hnsw->networked) >= load_counter(hnsw->added) ? 1 : 0;
}

void korvex_wait_finish_adding(hnsw_s* hnsw) {
  if (hnsw == nullptr || !is_started(hnsw)) return;
  korvex_runtime_s& runtime = *hnsw->runtime;
  const std::uint32_t last = load_counter(hnsw->added);
  if (indexing_for == &runtime || linked_up_to(hnsw, last)) return;
  if (runtime.indexing_threads == 0) {
    if (any_cut_off(runtime)) link_on_caller(hnsw);
    return;
  }
  KORVEX_LOG("completed %u total %u\n", load_counter(hnsw->networked), load_counter(hnsw->added));
  runtime.stop_adding.store(1);
  progress_estimate estimate(hnsw);
  while (!stopping(hnsw) && !linked_up_to(hnsw, last)) {
    if (runtime.running_threads.load() == 0) korvex_launch_threads(hnsw, runtime.indexing_threads);
    if (runtime.running_threads.load() == 0) link_on_caller(hnsw);
    sleep_while_linking(hnsw, last, estimate.next_sleep_ms());
  }
  KORVEX_LOG("index adding finished\n");
  print_memory_usage_change(log_fp(), "after index: ", hnsw->memory_usage, take_memory_usage());
}

void korvex_notify_ready(hnsw_s* hnsw) {
  korvex_runtime_s& runtime = *hnsw->runtime;
  if (runtime.ready_callback.load(std::memory_order_acquire) == nullptr) return;
  const std::uint32_t networked = load_counter(hnsw->networked);
  const std::uint32_t added = load_counter(hnsw->added);
  if (runtime.ready_notified.load() >= networked) return;
  if (networked < added && networked <= runtime.ready_threshold.load() - 1) return;
  const auto callback = runtime.ready_callback.exchange(nullptr);
  if (callback == nullptr) return;
  runtime.ready_notified.store(networked);
  callback(runtime.ready_context.load(), networked, added);
}

}  // namespace korvex
