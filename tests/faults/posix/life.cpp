#include "life.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <random>
#include <span>
#include <thread>

#include "engine/runtime.h"
#include "engine/verify.h"
#include "injection.h"

namespace korvex::test {
namespace {

constexpr int dimension = 6;
constexpr int k = 5;
constexpr int radius = 64;  // more candidates than rows: a walk meets all of them
constexpr std::uint64_t label_factor = 7;
constexpr const char* index_name = "life";

using row_values = std::array<float, dimension>;

// Far apart, so that the cache of answers tells them from one another.
const std::array<row_values, life::rows>& data() {
  static const auto made = [] {
    std::array<row_values, life::rows> values{};
    std::mt19937 random(5);
    for (row_values& row : values)
      for (float& value : row) value = static_cast<float>(random() % 1'000);
    return values;
  }();
  return made;
}

const float* row(int number) {
  return data()[static_cast<std::size_t>(number)].data();
}

// Whether a query for the row was answered in full: itself first, nothing nearer behind something farther.
bool answered(int wanted, std::span<const std::uint32_t> ids, std::span<const float> distances) {
  return !ids.empty() && ids[0] == static_cast<std::uint32_t>(wanted) && distances[0] < 1e-3f &&
         std::is_sorted(distances.begin(), distances.end());
}

// A session of the contract for as long as the object lives.
class session {
 public:
  explicit session(Korvex* index) : query_(index->createQuerySession(radius, k)) {}
  ~session() {
    if (query_ != nullptr) query_->destroy();
  }
  session(const session&) = delete;
  session& operator=(const session&) = delete;

  explicit operator bool() const { return query_ != nullptr && query_->getSessionId() != 0; }
  KorvexQuery* operator->() const { return query_; }
  std::span<const std::uint32_t> ids() const {
    const korvex_results_s* const results = query_->getResults(0);
    return results == nullptr ? std::span<const std::uint32_t>()
                              : std::span<const std::uint32_t>(results->ids, results->count);
  }
  bool finds(int wanted) const {
    if (query_->query(row(wanted), 0, k) != 0) return false;
    const korvex_results_s* const results = query_->getResults(0);
    return results != nullptr && results->count == k &&
           answered(wanted, {results->ids, results->count}, {results->distances, results->count});
  }

 private:
  KorvexQuery* const query_;
};

}  // namespace

void life::live(int first, int end) {
  attempt("opening", [&] { return open(); });
  if (index_ == nullptr) return;
  attempt("configuring", [&] { return configure(); });
  for (int i = first; i < end; ++i) attempt("adding", [&] { return add(i); });
  attempt("direct search", [&] { return find_directly(end); });
  attempt("direct search with a filter", [&] { return find_allowed(end); });
  attempt("session", [&] { return find_by_session(end); });
  attempt("more and refine", [&] { return page_and_refine(end); });
  attempt("listener", [&] { return find_by_listener(end); });
  attempt("bulk query", [&] { return find_by_batch(end); });
  hide_and_show(end);
  sync();
  attempt("another look", [&] { return look_at_all(end); });
  close();
}

bool life::open() {
  index_ = plan_.directory.empty()
               ? KorvexInstance(dimension)
               : KorvexOnDiskInstance(dimension, plan_.directory.c_str(), index_name);
  if (index_ != nullptr) record_ = index_->get_base(0);
  return index_ != nullptr;
}

bool life::configure() {
  index_->setAllocationUnits(16);
  index_->setPatternProbes(2);
  index_->setConstellationSize(4);
  index_->setThreads(plan_.indexing_threads);
  index_->setQueryThreads(plan_.search_threads, 16);
  index_->setDistanceType(Korvex::DISTANCE_L2);
  index_->enableDuplicateDetection(1);
  index_->enableDiskCache(plan_.cache_bytes);
  index_->destroyIndexOnDelete(plan_.removes_files ? 1 : 0);
  korvex_enable_label(record_, 1);
  korvex_enable_attributes(record_, 1);
  korvex_description_s description{};
  description.size = sizeof description;
  return korvex_describe(record_, &description) == 0 && description.metric == KORVEX_DISTANCE_L2 &&
         description.labels == 1;
}

bool life::add(int number) {
  std::uint32_t id = 0;
  if (korvex_try_add(record_, row(number), label_factor * static_cast<unsigned>(number), &id) != 0)
    return false;
  EXPECT_EQ(id, static_cast<std::uint32_t>(number));
  return true;
}

bool life::find_directly(int end) {
  constexpr int queries = 3;
  korvex_direct_options_s options{};
  options.size = sizeof options;
  options.radius = radius;
  std::uint32_t ids[queries * k];
  float distances[queries * k];
  std::uint32_t counts[queries];
  const int first = end - queries;
  if (korvex_search_direct(record_, row(first), queries, k, &options, ids, distances, counts) !=
      queries)
    return false;
  for (int i = 0; i < queries; ++i)
    if (counts[i] != k || !answered(first + i, {ids + i * k, k}, {distances + i * k, k}))
      return false;
  return true;
}

bool life::find_allowed(int end) {
  korvex_direct_options_s options{};
  options.size = sizeof options;
  const std::uint32_t allowed[] = {1, 5, 9, 3};
  std::uint32_t ids[k];
  float distances[k];
  std::uint32_t count = 0;
  const auto finds = [&](std::uint32_t most) {
    return korvex_search_direct(record_, row(5), 1, k, &options, ids, distances, &count) == 1 &&
           count == most && answered(5, {ids, count}, {distances, count});
  };
  options.allowed_ids = allowed;
  options.allowed_count = 4;
  if (!finds(4)) return false;
  options.allowed_ids = nullptr;
  const std::uint64_t bits[] = {0xAAAAAAAA};  // odd ids below 32
  options.allowed_bits = bits;
  options.allowed_bit_count = static_cast<std::size_t>(std::min(end, 32));
  if (!finds(k)) return false;
  options.allowed_bits = nullptr;
  options.filter = [](void*, std::uint32_t id, std::uint64_t label) {
    return id % 2 == 0 || label != label_factor * id ? 1 : 0;
  };
  return finds(k);
}

bool life::find_by_session(int end) {
  const session query(index_);
  if (!query || !query.finds(end - 1) || !query.finds(3)) return false;
  const korvex_result_ids_s* const copy = query->getResultIds(1);
  return copy != nullptr && copy->count == k && copy->ids != nullptr && copy->ids[0] == 3;
}

bool life::page_and_refine(int end) {
  const session query(index_);
  if (!query || !query.finds(end - 2)) return false;
  std::array<std::uint32_t, k> first{};
  std::copy_n(query.ids().begin(), k, first.begin());
  if (query->more() != 0 || query.ids().size() != k) return false;
  for (const std::uint32_t id : query.ids())
    EXPECT_EQ(std::count(first.begin(), first.end(), id), 0) << "delivered twice";
  if (query->refine() != 0 || query.ids().empty()) return false;
  if (query->filter(static_cast<unsigned>(end - 2)) != 0) return false;
  if (query->query(row(end - 2), 0, k) != 0) return false;
  const auto left = query.ids();
  EXPECT_EQ(std::count(left.begin(), left.end(), static_cast<std::uint32_t>(end - 2)), 0);
  return left.size() == k;
}

bool life::find_by_listener(int end) {
  class : public KorvexQueryListener {
   public:
    int onFilter(KorvexQuery*, unsigned id) override { return id % 2 == 0 ? 1 : 0; }
    int onResults(KorvexQuery*) override { return ++told, 0; }
    std::atomic<int> told{0};
  } listener;
  const session query(index_);
  if (!query) return false;
  query->setListener(&listener, 1);
  const int wanted = (end - 1) / 2 * 2 - 1;
  const bool found = query.finds(wanted);
  for (const std::uint32_t id : query.ids()) EXPECT_EQ(id % 2, 1u) << "was filtered";
  while (found && listener.told == 0) std::this_thread::yield();
  query->setListener(nullptr, 0);
  return found;
}

bool life::find_by_batch(int end) {
  constexpr int queries = 6;
  KorvexBulkQuery* const bulk = index_->createBulkQuerySession(radius);
  if (bulk == nullptr) return false;
  const int first = end - queries;
  bool all = bulk->query(row(first), queries, 0, k) == 0;
  const korvex_bulk_results_s* const results = all ? bulk->getResultIds(0) : nullptr;
  all = results != nullptr && results->query_count == queries;
  for (int i = 0; all && i < queries; ++i)
    all = results->ids[i * k] == static_cast<std::uint32_t>(first + i);
  bulk->destroy();
  return all;
}

void life::hide_and_show(int end) {
  if (broken_) return;
  const auto wanted = static_cast<std::uint32_t>(end - 4);
  korvex_direct_options_s options{};
  options.size = sizeof options;
  options.radius = radius;
  const auto first_found = [&] {
    std::uint32_t id = 0;
    return korvex_search_direct(record_, row(end - 4), 1, 1, &options, &id, nullptr, nullptr) == 1
               ? id
               : KORVEX_NO_ID;
  };
  EXPECT_EQ(korvex_delete(record_, wanted, 0), 0);
  attempt("search for a hidden row", [&] {
    const std::uint32_t id = first_found();
    EXPECT_NE(id, wanted);
    return id != KORVEX_NO_ID;
  });
  EXPECT_EQ(korvex_delete(record_, wanted, 1), 0);
  attempt("search for a row that is back", [&] { return first_found() == wanted; });
}

// A device that refused once is not believed before the next opening.
void life::sync() {
  if (plan_.directory.empty() || broken_) return;
  if (korvex_sync_to_disk(record_, 0) == 0) return;
  EXPECT_TRUE(injection::failed());
  excused_ = true;
}

bool life::look_at_all(int end) {
  korvex_stats_s stats{};
  stats.size = sizeof stats;
  if (korvex_get_stats(record_, &stats) != 0) return false;
  EXPECT_EQ(stats.added, static_cast<std::uint32_t>(end));
  EXPECT_EQ(stats.deleted, 0u);
  korvex_direct_options_s options{};
  options.size = sizeof options;
  options.radius = radius;
  for (int i = 0; i < end && !testing::Test::HasFailure(); ++i) {
    std::uint32_t ids[k];
    float distances[k];
    std::uint32_t count = 0;
    if (korvex_search_direct(record_, row(i), 1, k, &options, ids, distances, &count) != 1)
      return false;
    EXPECT_TRUE(answered(i, {ids, count}, {distances, count})) << "row " << i << " of " << end;
    EXPECT_EQ(korvex_get_label(record_, static_cast<std::uint32_t>(i)),
              label_factor * static_cast<unsigned>(i));
    row_values stored{};
    EXPECT_EQ(korvex_get_vector(record_, static_cast<std::uint32_t>(i), stored.data()), 0);
    EXPECT_TRUE(std::equal(stored.begin(), stored.end(), row(i))) << "row " << i;
  }
  return true;
}

// Returns when the last thread has left the index.
void life::close() {
  korvex_runtime_s* const runtime = record_->runtime;
  runtime_add_handle(runtime);
  index_->destroy();
  index_ = nullptr;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!runtime->users_gone.load() && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  EXPECT_TRUE(runtime->users_gone.load()) << "a thread stays";
  runtime_release_handle(runtime);
}

void life::expect_whole(int end) {
  const auto check = [&] { return korvex_verify_directory(plan_.directory, index_name); };
  const auto tell = [](const verify_report& report) {
    std::string text = report.reason;
    for (const verify_finding& finding : report.findings)
      text += "\n" + finding.check + ": " + finding.text;
    return text;
  };
  const verify_report found = check();
  EXPECT_EQ(found.outcome, verify_outcome::checked) << tell(found);
  EXPECT_EQ(found.errors, 0u) << tell(found);
  ASSERT_TRUE(open());
  ASSERT_TRUE(configure());
  korvex_init_memory(record_);
  korvex_wait_finish_adding(record_);
  ASSERT_TRUE(look_at_all(end));
  EXPECT_EQ(korvex_sync_to_disk(record_, 0), 0);
  close();
  const verify_report mended = check();
  EXPECT_TRUE(mended.clean()) << tell(mended);
}

}  // namespace korvex::test
