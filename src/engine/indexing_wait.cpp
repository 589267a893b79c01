#include <algorithm>
#include <mutex>
#include <new>

#include "engine/indexing.h"
#include "engine/point_linking.h"
#include "engine/runtime.h"
#include "runtime/log.h"
#include "runtime/platform/clock.h"

// How a host's thread waits until all is linked.
namespace korvex {

namespace {

// Whether every id up to `last` is linked. Points that came later do not count.
bool linked_up_to(const hnsw_s* hnsw, std::uint32_t last) {
  if (load_counter(hnsw->networked) >= load_counter(hnsw->added)) return true;
  korvex_runtime_s& runtime = *hnsw->runtime;
  std::lock_guard lock(runtime.add_lock);
  if (load_counter(hnsw->taken) < last || !runtime.relink.empty()) return false;
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
  } while (platform::time_ms() < end && !indexing_is_stopping(hnsw) && !linked_up_to(hnsw, last) &&
           hnsw->runtime->running_threads.load() != 0);
}

// A wait does not fail for want of memory for its report.
void report_memory(const hnsw_s* hnsw) {
  try {
    print_memory_usage_change(log_fp(), "after index: ", hnsw->memory_usage, take_memory_usage());
  } catch (const std::bad_alloc&) {
    KORVEX_LOG("no memory for a report of memory\n");
  }
}

void keep_linking(hnsw_s* hnsw) {
  const korvex_runtime_s& runtime = *hnsw->runtime;
  if (runtime.running_threads.load() == 0) korvex_launch_threads(hnsw, runtime.indexing_threads);
  if (runtime.running_threads.load() == 0) link_on_caller(hnsw);
}

}  // namespace

int korvex_has_finish_adding(hnsw_s* hnsw) {
  if (hnsw == nullptr) return 0;
  if (!is_started(hnsw) || hnsw->runtime->indexing_threads == 0) return 1;
  return load_counter(hnsw->networked) >= load_counter(hnsw->added) ? 1 : 0;
}

void korvex_wait_finish_adding(hnsw_s* hnsw) {
  if (hnsw == nullptr || !is_started(hnsw)) return;
  korvex_runtime_s& runtime = *hnsw->runtime;
  const std::uint32_t last = load_counter(hnsw->added);
  if (is_indexing_thread(runtime) || linked_up_to(hnsw, last)) return;
  if (runtime.indexing_threads == 0) {
    if (any_cut_off(runtime)) link_on_caller(hnsw);
    return;
  }
  KORVEX_LOG("completed %u total %u\n", load_counter(hnsw->networked), load_counter(hnsw->added));
  runtime.stop_adding.store(1);
  progress_estimate estimate(hnsw);
  while (!indexing_is_stopping(hnsw) && !linked_up_to(hnsw, last)) {
    keep_linking(hnsw);
    sleep_while_linking(hnsw, last, estimate.next_sleep_ms());
  }
  KORVEX_LOG("index adding finished\n");
  report_memory(hnsw);
}

bool korvex_wait_linked(hnsw_s* hnsw, std::uint64_t timeout_ms) {
  if (hnsw == nullptr || !is_started(hnsw)) return hnsw != nullptr;
  korvex_runtime_s& runtime = *hnsw->runtime;
  const std::uint32_t last = load_counter(hnsw->added);
  if (is_indexing_thread(runtime) || linked_up_to(hnsw, last)) return true;
  if (runtime.indexing_threads == 0) {
    if (any_cut_off(runtime)) link_on_caller(hnsw);
    return true;
  }
  runtime.stop_adding.store(1);
  const std::uint64_t begin = platform::time_ms();
  while (!indexing_is_stopping(hnsw)) {
    const std::uint64_t passed = platform::time_ms() - begin;
    if (passed >= timeout_ms) return false;
    keep_linking(hnsw);
    const std::uint64_t step_ms = passed < 10 ? 1 : 50;
    sleep_while_linking(hnsw, last, std::min(step_ms, timeout_ms - passed));
    if (linked_up_to(hnsw, last)) return true;
  }
  return false;
}

}  // namespace korvex
