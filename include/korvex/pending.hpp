#ifndef KORVEX_PENDING_HPP
#define KORVEX_PENDING_HPP

#include <condition_variable>
#include <future>
#include <unordered_set>

#include "korvex/core.hpp"

namespace korvex {

namespace detail {

// A search that goes on without its caller.
class running_search {
 public:
  virtual ~running_search() = default;
  virtual bool wait_for(std::chrono::milliseconds time) = 0;
  virtual hits get() = 0;
  virtual void more() = 0;
};

// A session of the engine; its end waits for a search that is under way.
class engine_session {
 public:
  engine_session(hnsw_s* record, std::size_t k)
      : record_(record), id_(korvex_search_init(record, static_cast<int>(k), nullptr)) {}
  ~engine_session() { korvex_search_free(record_, id_); }
  engine_session(const engine_session&) = delete;
  engine_session& operator=(const engine_session&) = delete;
  std::uint32_t id() const { return id_; }

 private:
  hnsw_s* const record_;
  const std::uint32_t id_;  // 0 when memory was short
};

// One on the index's search threads, through a session of the engine.
class session_search final : public running_search {
 public:
  session_search(std::shared_ptr<core> index, std::span<const float> query, std::size_t k,
                 int radius)
      : index_(std::move(index)), session_(index_->record(), k) {
    if (session_.id() == 0)
      throw error(errc::no_room, "memory does not suffice for a search session");
    korvex_search_set_callbacks(index_->record(), session_.id(), nullptr, finished, this);
    std::vector<float> room;
    const float* const row = index_->within_range(query, &room).data();
    if (korvex_search(index_->record(), session_.id(), row, radius, static_cast<int>(k)) == 0)
      return;
    done_ = true;
    empty_ = index_->counts().added == 0;
    if (empty_) return;
    throw error(errc::no_room, "memory does not suffice for the search");
  }
  bool wait_for(std::chrono::milliseconds time) override {
    std::unique_lock lock(lock_);
    return ended_.wait_for(lock, time, [this] { return done_; });
  }

  hits get() override {
    hits row;
    const korvex_results_s* const found = korvex_search_result(index_->record(), session_.id(), 0);
    for (std::uint32_t i = 0; found != nullptr && i < found->count; ++i)
      row.push_back({found->ids[i], index_->own_scale(found->distances[i])});
    return row;
  }

  void more() override {
    if (empty_) return;
    {
      // The answer was there before the word of it is.
      std::unique_lock lock(lock_);
      ended_.wait(lock, [this] { return done_; });
      done_ = false;
    }
    if (korvex_search_more(index_->record(), session_.id()) == 0) return;
    std::lock_guard lock(lock_);
    done_ = true;
    throw error(errc::no_room, "memory does not suffice to go on searching");
  }

 private:
  static int finished(unsigned, const void* data) {
    auto* const self = static_cast<session_search*>(const_cast<void*>(data));
    std::lock_guard lock(self->lock_);
    self->done_ = true;
    self->ended_.notify_all();
    return 0;
  }

  const std::shared_ptr<core> index_;
  std::mutex lock_;
  std::condition_variable ended_;
  bool done_ = false;             // under lock_
  bool empty_ = false;            // nothing was there to be searched
  const engine_session session_;  // the last to be made and the first to go
};

// One on a thread of its own: the filtered search needs its caller's thread.
class filtered_search final : public running_search {
 public:
  filtered_search(std::shared_ptr<core> index, std::span<const float> query, std::size_t k,
                  const search_options& options)
      : index_(std::move(index)), query_(query.begin(), query.end()), k_(k), options_(options) {
    if (options.allowed) allowed_.assign(options.allowed->begin(), options.allowed->end());
    if (options.allowed_bits)
      bits_.assign(options.allowed_bits->begin(), options.allowed_bits->end());
    if (options.allowed) options_.allowed = allowed_;
    if (options.allowed_bits) options_.allowed_bits = bits_;
    start();
  }

  bool wait_for(std::chrono::milliseconds time) override {
    return answer_.wait_for(time) == std::future_status::ready;
  }
  hits get() override { return answer_.get(); }

  // The nearest of those that were not delivered yet.
  void more() override {
    for (const hit& found : answer_.get()) delivered_.insert(found.id);
    start();
  }

 private:
  void start() {
    answer_ =
        std::async(std::launch::async, [this] {
          search_options options = options_;
          options.filter = [this](id_type id, std::uint64_t label) {
            return !delivered_.contains(id) && (!options_.filter || options_.filter(id, label));
          };
          return hits_of(index_->search(query_, k_, options));
        }).share();
  }

  const std::shared_ptr<core> index_;
  const std::vector<float> query_;
  const std::size_t k_;
  search_options options_;
  std::vector<id_type> allowed_;
  std::vector<std::uint64_t> bits_;
  std::unordered_set<id_type> delivered_;
  std::shared_future<hits> answer_;  // its end waits for the thread: last to be made, first to go
};

}  // namespace detail

// A search that was started and not waited for. Keeps what it needs of the index: one on disk stays
// open until the last of its pending searches is gone.
// Threads   one at a time
// Ownership move-only; its end waits for a search that is under way
class pending {
 public:
  pending() = default;
  explicit pending(std::unique_ptr<detail::running_search> search) : search_(std::move(search)) {}

  bool valid() const { return search_ != nullptr; }
  // Whether get() returns at once.
  bool ready() const { return wait_for(std::chrono::milliseconds(0)); }
  // False when the time passed first.
  bool wait_for(std::chrono::milliseconds time) const { return use().wait_for(time); }

  // Waits for the answer. Again until more(): the same answer.
  hits get() const { return use().get(); }

  // Waits for the answer, then goes on searching: the next get() returns the next k, none of those
  // before among them. An empty answer means that there are no more.
  void more() {
    use().get();
    use().more();
  }

 private:
  detail::running_search& use() const {
    if (search_ != nullptr) return *search_;
    throw error(errc::closed, "this pending search is empty: a search_async was expected");
  }

  std::unique_ptr<detail::running_search> search_;
};

}  // namespace korvex

#endif  // KORVEX_PENDING_HPP
