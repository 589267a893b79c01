#include "engine/indexing.h"

#include <algorithm>
#include <memory>
#include <mutex>

#include "engine/point_linking.h"
#include "engine/points.h"
#include "engine/runtime.h"
#include "engine/teardown.h"
#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "runtime/threads.h"

namespace korvex {

namespace {

constexpr std::uint64_t deferral_usec = 199;
constexpr std::uint64_t idle_wait_ms = 1'000;
constexpr std::uint64_t deferred_poll_usec = 100;

thread_local const korvex_runtime_s* indexing_for = nullptr;

bool has_neighbours(const korvex_runtime_s& runtime, std::uint32_t id) {
  const graph_record graph = graph_of(runtime, id);
  return graph && graph.slot(0) != 0;
}

// Under add_lock: the linking of the id is over. An entry that got no neighbours by then never will
// of its own, and must not be waited for.
bool settled(const hnsw_s* hnsw, std::uint32_t id) {
  const korvex_runtime_s& runtime = *hnsw->runtime;
  if (id > load_counter(hnsw->taken)) return false;
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
        if (!indexing_is_stopping(hnsw_) && take(point)) return true;
        waits_for_entries = runtime_.deferred_count != 0;
        const bool idle_too_long = platform::time_ms() - idle_since >= idle_wait_ms;
        const bool may_go =
            !waits_for_entries && (idle_too_long || runtime_.stop_adding.load() != 0);
        if ((may_go || indexing_is_stopping(hnsw_)) && retire()) return false;
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
    if (indexing_is_stopping(hnsw_) || untaken()) return;
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
    if (indexing_is_stopping(hnsw_) || !untaken()) return true;
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
  std::atomic_ref(hnsw->taken).store(id);  // without add_lock: nobody else hands points out
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

}  // namespace

bool is_indexing_thread(const korvex_runtime_s& runtime) {
  return indexing_for == &runtime;
}

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
    if (!use || indexing_is_stopping(hnsw)) return;
    runtime.running_threads.fetch_add(1);
    if (create_thread(korvex_indexing_thread, &runtime) != 0) {
      runtime.running_threads.fetch_sub(1);
      return;
    }
    use.detach();
  }
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
