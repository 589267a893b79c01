// Query sessions: answers, continuation, listeners, and calls in the wrong order.
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <stdexcept>
#include <thread>

#include "library.h"
#include "listeners.h"

namespace {

TEST(ContractSession, AnswersContinuesAndExcludes) {
  const auto rows = random_vectors(400, 4);
  index_ptr index = filled_index(rows);
  query_ptr query(index->createQuerySession(0, 10)), other(index->createQuerySession(0, 10));
  EXPECT_EQ(query->getParent(), index.get());
  EXPECT_NE(query->getSessionId(), 0u);
  EXPECT_NE(query->get_objid(), other->get_objid());
  EXPECT_EQ(index->getQuerySession(query->getSessionId()), query.get());
  EXPECT_EQ(query->getUserData(), nullptr);
  query->setUserData(&query);
  EXPECT_EQ(query->getUserData(), &query);
  EXPECT_EQ(query->setRadius(-1), -1);
  EXPECT_EQ(query->setRadius(0), 0);
  EXPECT_EQ(query->setRadius(400), 0);

  const float* const v = row(rows, 42);
  const auto truth = nearest(rows, v, 20);
  ASSERT_EQ(query->query(v, 0, 10), 0u);
  const ids_t* ids = nullptr;
  EXPECT_EQ(count_of(log_of([&] { ids = query->getResultIds(0); }), "result ids\n"), 1u);
  const distances_t* const distances = query->getResultDists(0);
  ASSERT_EQ(ids->count, 10u);
  EXPECT_EQ(ids->valid, 1u);
  EXPECT_EQ(ids->owned, 0u);
  ASSERT_EQ(distances->count, 10u);
  for (u32 i = 0; i < 10; ++i) {
    EXPECT_EQ(ids->ids[i], truth[i]);
    EXPECT_FLOAT_EQ(distances->distances[i], index->distance(ids->ids[i], v));
  }
  const ids_t* const copy = query->getResultIds(1);
  EXPECT_EQ(copy->owned, 1u);
  EXPECT_TRUE(std::equal(truth.begin(), truth.begin() + 10, copy->ids));
  EXPECT_EQ(query->getResultDists(1)->owned, 1u);
  EXPECT_EQ(query->getResults(1), query->getResults(0)) << "the live record in both cases";

  ASSERT_EQ(query->more(), 0u);
  for (const u32 id : ids_of(query.get()))
    EXPECT_EQ(std::count(truth.begin(), truth.begin() + 10, id), 0) << id;
  ASSERT_EQ(query->filter(42), 0u);
  EXPECT_EQ(query->filter(42), 0u) << "again";
  EXPECT_EQ(query->filter(4000000), 0u) << "an id that may come";
  ASSERT_EQ(query->query(v, 0, 10), 0u);
  EXPECT_EQ(ids_of(query.get()).front(), truth[1]);
  ASSERT_EQ(query->refine(), 0u);
  const auto refined = ids_of(query.get());
  EXPECT_EQ(std::count(refined.begin(), refined.end(), 42u), 0);
  ASSERT_EQ(other->query(v, 0, 10), 0u);
  EXPECT_EQ(ids_of(other.get()).front(), 42u) << "each session excludes for itself";
}

TEST(ContractSession, EndsWithItsObject) {
  const auto rows = random_vectors(50, 40);
  index_ptr index = filled_index(rows);
  query_ptr query(index->createQuerySession(10, 1));
  const u32 sid = query->getSessionId();
  query->setUserData(&index);
  ASSERT_EQ(query->filter(9), 0u);
  query.reset();
  EXPECT_EQ(index->getQuerySession(sid), nullptr);
  for (const u32 unknown : {0u, sid + 1, 1000000u, failed})
    EXPECT_EQ(index->getQuerySession(unknown), nullptr) << unknown;
  query.reset(index->createQuerySession(50, 1));  // takes the record over, and nothing that it held
  EXPECT_EQ(query->getUserData(), nullptr);
  EXPECT_EQ(query->getResults(0)->count, 0u);
  ASSERT_EQ(query->query(row(rows, 9), 0, 1), 0u);
  EXPECT_EQ(ids_of(query.get()), std::vector<u32>{9});
}

TEST(ContractSession, AsksForAQueryFirst) {
  const auto rows = random_vectors(50, 41);
  index_ptr index = filled_index(rows);
  query_ptr query(index->createQuerySession(10, 3));
  for (const auto operation : {&KorvexQuery::more, &KorvexQuery::refine}) {
    const std::string text = log_of([&] { EXPECT_EQ((query.get()->*operation)(), failed); });
    EXPECT_EQ(count_of(text, "nothing was searched yet"), 1u) << text;
  }
  EXPECT_EQ(query->getResults(1)->count, 0u);
  EXPECT_EQ(query->getResultIds(1)->count, 0u);
  EXPECT_EQ(query->getResultDists(1)->count, 0u);
  ASSERT_EQ(query->query(row(rows, 5), 0, 3), 0u);
  EXPECT_EQ(ids_of(query.get()), nearest(rows, row(rows, 5), 3));
}

TEST(ContractSession, ABusyOneRefusesAndFinishes) {
  const auto rows = random_vectors(100, 42);
  index_ptr index = filled_index(rows);
  query_ptr query(index->createQuerySession(100, 3));
  query_listener listener;
  std::promise<void> go;
  const std::shared_future<void> released = go.get_future().share();
  counter asked;
  listener.filter = [&](KorvexQuery*, u32) {
    asked.add();
    released.wait();
    return 0;
  };
  query->setListener(&listener, 1);
  ASSERT_EQ(query->query(row(rows, 5), 0, 3), 0u);
  ASSERT_TRUE(asked.reaches(1));
  const std::string text = log_of([&] {
    EXPECT_EQ(query->query(row(rows, 6), 0, 3), failed);
    EXPECT_EQ(query->more(), failed);
    EXPECT_EQ(query->refine(), 0u) << "logs and leaves the running search alone";
  });
  const std::string sid = std::to_string(query->getSessionId());
  EXPECT_EQ(count_of(text, "unable to find sid: " + sid + " or search already in progress: 1\n"),
            1u)
      << text;
  EXPECT_EQ(count_of(text, "search is already in progress: " + sid + "\n"), 1u) << text;
  EXPECT_EQ(count_of(text, "search is already in progress\n"), 1u) << text;
  EXPECT_EQ(count_of(text, "\n"), 3u) << text;
  std::thread reader([&] { EXPECT_EQ(ids_of(query.get()), nearest(rows, row(rows, 5), 3)); });
  go.set_value();
  reader.join();
  EXPECT_TRUE(listener.calls.reaches(1));
}

TEST(ContractSession, ListenersAreAskedAndTold) {
  const auto rows = random_vectors(300, 5);
  index_ptr index = filled_index(rows);
  query_listener listener;
  query_ptr query(index->createQuerySession(300, 10));
  std::atomic<bool> same{true};
  listener.filter = [&](KorvexQuery* asked, u32 id) {
    if (asked != query.get()) same = false;
    return static_cast<int>(id % 2);
  };
  query->setListener(&listener, 1);
  ASSERT_EQ(query->query(row(rows, 8), 0, 10), 0u);
  ASSERT_TRUE(listener.calls.reaches(1));
  auto ids = ids_of(query.get());
  EXPECT_EQ(ids.size(), 10u);
  for (const u32 id : ids) EXPECT_EQ(id % 2, 0u);
  EXPECT_TRUE(same);

  query->setListener(&listener, 0);  // results only
  ASSERT_EQ(query->query(row(rows, 9), 0, 10), 0u);
  ASSERT_TRUE(listener.calls.reaches(2));
  EXPECT_EQ(ids_of(query.get()).front(), 9u);

  // What a host throws does not end the process; the candidate stays.
  listener.filter = [](KorvexQuery*, u32) -> int { throw std::runtime_error("of the host"); };
  listener.results = [](KorvexQuery*) { throw 5; };
  query->setListener(&listener, 1);
  const std::string text = log_of([&] {
    ASSERT_EQ(query->query(row(rows, 9), 0, 10), 0u);
    EXPECT_EQ(ids_of(query.get()).front(), 9u);
    query->setListener(nullptr, 1);  // waits for nobody, but the next query has no listener
    ASSERT_EQ(query->query(row(rows, 10), 0, 10), 0u);
    EXPECT_EQ(ids_of(query.get()).front(), 10u);
    query.reset();  // waits for the callback
  });
  EXPECT_GE(count_of(text, "onFilter: of the host\n"), 1u) << text;
  EXPECT_LE(count_of(text, "onResults: an unknown exception\n"), 1u) << text;
  EXPECT_EQ(listener.calls.count(), 2);
}

TEST(ContractSession, CallbacksMayQueryAndDestroy) {
  const auto rows = random_vectors(300, 6);
  index_ptr index = filled_index(rows);
  query_listener chain;
  KorvexQuery* query = index->createQuerySession(100, 5);
  std::atomic<u32> next{1};
  chain.results = [&](KorvexQuery* done) {
    EXPECT_EQ(ids_of(done).front(), next - 1);
    if (next < 20)
      EXPECT_EQ(done->query(row(rows, next++), 0, 5), 0u);
    else
      done->destroy();
  };
  query->setListener(&chain, 0);
  ASSERT_EQ(query->query(row(rows, 0), 0, 5), 0u);
  EXPECT_TRUE(chain.calls.reaches(20));
}

}  // namespace
