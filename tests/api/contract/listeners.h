#ifndef KORVEX_TESTS_API_CONTRACT_LISTENERS_H
#define KORVEX_TESTS_API_CONTRACT_LISTENERS_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "host.h"

// Counts calls and lets a test wait for them. The state outlives the listener: a callback that was
// counted may still be on its way out.
class counter {
 public:
  void add() {
    const auto state = state_;
    std::lock_guard lock(state->mutex);
    ++state->count;
    state->changed.notify_all();
  }
  bool reaches(int n) {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, std::chrono::seconds(20),
                                    [&] { return state_->count >= n; });
  }
  int count() {
    std::lock_guard lock(state_->mutex);
    return state_->count;
  }

 private:
  struct counted {
    std::mutex mutex;
    std::condition_variable changed;
    int count = 0;
  };
  const std::shared_ptr<counted> state_ = std::make_shared<counted>();
};

struct query_listener : KorvexQueryListener {
  int onFilter(KorvexQuery* query, u32 id) override { return filter ? filter(query, id) : 0; }
  int onResults(KorvexQuery* query) override {
    if (results) results(query);
    calls.add();
    return 0;
  }
  std::function<int(KorvexQuery*, u32)> filter;
  std::function<void(KorvexQuery*)> results;
  counter calls;
};

struct bulk_listener : KorvexBulkQueryListener {
  int onResults(KorvexBulkQuery* query) override {
    if (results) results(query);
    calls.add();
    return 0;
  }
  std::function<void(KorvexBulkQuery*)> results;
  counter calls;
};

struct index_listener : KorvexIndexListener {
  void onIndexReady(Korvex* index, u32 indexed_count, u32 added_count) override {
    indexed = indexed_count;
    added = added_count;
    if (ready) ready(index);
    calls.add();
  }
  std::function<void(Korvex*)> ready;
  std::atomic<u32> indexed{0}, added{0};
  counter calls;
};

#endif  // KORVEX_TESTS_API_CONTRACT_LISTENERS_H
