#include "cli/measurement.h"

#include <fmt/format.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "cli/console.h"
#include "cli/errors.h"
#include "engine/runtime.h"
#include "korvex/engine.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/process.h"

namespace korvex::cli {

namespace {

constexpr std::size_t rows_a_call = 1000;

struct destroy_query {
  template <typename Query>
  void operator()(Query* query) const {
    query->destroy();
  }
};

double seconds_since(std::uint64_t began_ns) {
  return static_cast<double>(platform::monotonic_ns() - began_ns) / 1e9;
}

[[noreturn]] void refuse(const std::string& what) {
  throw tool_error(exit_failed, what + "; the log tells why");
}

void configure(Korvex& index, const index_options& options) {
  index.setDistanceType(static_cast<Korvex::DistanceType>(options.metric.type));
  index.setNormalize(options.metric.unit ? 1 : 0);
  index.setConstellationSize(options.constellation);
  index.setRadius(options.radius, 0);
  index.setPatternProbes(options.probes);
  index.setThreads(options.index_threads);
  index.setQueryThreads(options.search_threads, 2 * options.search_threads);
  ::korvex_set_result_cache(index.get_base(0), options.result_cache);
}

void add_rows(Korvex& index, const matrix& base) {
  for (std::size_t row = 0; row < base.rows; row += rows_a_call) {
    const std::size_t count = std::min(rows_a_call, base.rows - row);
    const unsigned long long ids = index.addVectors(base.row(row), static_cast<int>(count), 0);
    const unsigned long long first = ids & 0xFFFFFFFFu;
    if (first != row || ids >> 32 != row + count - 1)
      refuse(fmt::format("adding the rows {} to {} gave the ids {} to {}", row, row + count - 1,
                         first, ids >> 32));
  }
}

// Wakes who waits for a batch.
class batch_notice final : public KorvexBulkQueryListener {
 public:
  int onResults(KorvexBulkQuery*) override {
    {
      const std::lock_guard lock(mutex_);
      done_ = true;
    }
    answered_.notify_one();
    return 0;
  }
  void wait() {
    std::unique_lock lock(mutex_);
    answered_.wait(lock, [this] { return std::exchange(done_, false); });
  }

 private:
  std::mutex mutex_;
  std::condition_variable answered_;
  bool done_ = false;  // guarded by mutex_
};

using session_handle = std::unique_ptr<KorvexQuery, destroy_query>;

session_handle open_session(Korvex& index, int radius, int k) {
  session_handle session(index.createQuerySession(radius, k));
  if (session == nullptr) refuse("a session could not be opened");
  return session;
}

const korvex_results_s& ask(KorvexQuery& session, const float* query, int k) {
  if (session.query(query, 0, k) != 0) refuse("a query was refused");
  const korvex_results_s* const results = session.getResults(0);
  if (results == nullptr) refuse("a query had no results");
  return *results;
}

}  // namespace

built_index build_index(const matrix& base, const index_options& options) {
  built_index built;
  const std::uint64_t resident_before = platform::process_memory().resident_bytes;
  built.index.reset(KorvexInstance(static_cast<int>(base.dimension)));
  if (built.index == nullptr) refuse("the index could not be created");
  configure(*built.index, options);
  const hnsw_s* const record = built.index->get_base(0);
  {
    const progress line("building", base.rows, [&] { return load_counter(record->networked); });
    const std::uint64_t began = platform::monotonic_ns();
    add_rows(*built.index, base);
    built.index->waitForIndexReady();
    built.seconds = seconds_since(began);
  }
  if (built.index->isIndexReady() == 0) refuse("the index was not completed");
  const std::uint64_t resident_after = platform::process_memory().resident_bytes;
  built.bytes_per_vector =
      (static_cast<double>(resident_after) - static_cast<double>(resident_before)) /
      static_cast<double>(base.rows);
  return built;
}

answer ask_once(Korvex& index, const float* query, int radius, int k) {
  const session_handle session = open_session(index, radius, k);
  const korvex_results_s& results = ask(*session, query, k);
  return {{results.ids, results.ids + results.count},
          {results.distances, results.distances + results.count}};
}

double time_bulk(Korvex& index, const matrix& queries, int radius, int k,
                 const answer_listener& listener) {
  batch_notice notice;
  const std::unique_ptr<KorvexBulkQuery, destroy_query> bulk(index.createBulkQuerySession(radius));
  if (bulk == nullptr) refuse("a bulk query could not be opened");
  bulk->setListener(&notice);
  const std::uint64_t began = platform::monotonic_ns();
  if (bulk->query(queries.values.data(), static_cast<int>(queries.rows), 0, k) != 0)
    refuse("the bulk query was refused");
  notice.wait();
  const double seconds = seconds_since(began);
  const korvex_bulk_results_s* const results = bulk->getResultIds(0);
  if (results == nullptr || results->query_count != queries.rows)
    refuse("the bulk query had no results");
  for (std::size_t query = 0; listener && query < queries.rows; ++query)
    listener(query, results->ids + query * results->k, results->k);
  return seconds;
}

std::vector<double> time_sessions(Korvex& index, const matrix& queries, int radius, int k,
                                  const answer_listener& listener,
                                  const std::function<void()>& count_query) {
  const session_handle session = open_session(index, radius, k);
  std::vector<double> seconds(queries.rows);
  for (std::size_t query = 0; query < queries.rows; ++query) {
    const std::uint64_t began = platform::monotonic_ns();
    const korvex_results_s& results = ask(*session, queries.row(query), k);
    seconds[query] = seconds_since(began);
    if (listener) listener(query, results.ids, results.count);
    count_query();
  }
  return seconds;
}

}  // namespace korvex::cli
