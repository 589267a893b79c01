// Who may go before whom, on which thread, and under which load.
#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <thread>

#include "library.h"
#include "listeners.h"

namespace {

TEST(ContractLifetime, ObjectsThatOutliveTheirIndexAnswerWithFailure) {
  const auto rows = random_vectors(100, 11);
  index_ptr index = filled_index(rows);
  query_ptr query(index->createQuerySession(100, 3));
  bulk_ptr bulk(index->createBulkQuerySession(10)), idle(index->createBulkQuerySession(10));
  query_listener listener;
  bulk_listener batch;
  ASSERT_EQ(query->query(row(rows, 1), 0, 3), 0u);
  ASSERT_EQ(bulk->query(rows.data(), 10, 0, 3), 0u);
  const u32 sid = query->getSessionId(), id = query->get_objid();
  query->setUserData(&listener);
  const std::string text = log_of([&] { index.reset(); });
  EXPECT_EQ(count_of(text, "clean up started: active threads search "), 1u) << text;

  EXPECT_EQ(query->getParent(), nullptr);
  EXPECT_EQ(query->query(row(rows, 1), 0, 3), failed);
  EXPECT_EQ(query->query(nullptr, 0, 3), failed);
  EXPECT_EQ(query->more(), failed);
  EXPECT_EQ(query->refine(), failed);
  EXPECT_EQ(query->filter(1), failed);
  EXPECT_EQ(query->getResults(1), nullptr);
  EXPECT_EQ(query->getResultIds(1), nullptr);
  EXPECT_EQ(query->getResultDists(0), nullptr);
  query->setListener(&listener, 1);
  query->setListener(nullptr, 1);
  EXPECT_EQ(query->getUserData(), &listener);
  EXPECT_EQ(query->setRadius(5), 0);
  EXPECT_EQ(query->getSessionId(), sid);
  EXPECT_EQ(query->get_objid(), id);
  for (KorvexBulkQuery* const left : {bulk.get(), idle.get()}) {
    left->setListener(&batch);
    EXPECT_EQ(left->query(rows.data(), 10, 0, 3), failed);
    EXPECT_EQ(left->getResultIds(0), nullptr);
    EXPECT_EQ(count_of(log_of([&] { left->printResults(); }), "the index was destroyed"), 1u);
    EXPECT_EQ(left->setRadius(5), 0);
  }
  EXPECT_EQ(listener.calls.count() + batch.calls.count(), 0);
}

TEST(ContractLifetime, DestroyingUnderLoadEndsEverything) {
  constexpr u32 n = 600;
  const auto rows = random_vectors(n, 12);
  for (int round = 0; round < 6; ++round) {
    query_listener restless;
    bulk_listener batch;
    restless.results = [](KorvexQuery* done) { done->more(); };
    index_ptr index(lib().instance(dimension));
    index->setQueryThreads(2, 4);
    std::vector<query_ptr> queries;
    bulk_ptr bulk(index->createBulkQuerySession(200));
    std::thread asking;
    index->addVectors(rows.data(), n, 0);
    if (round % 2 == 0) {  // else it goes while it is indexing
      for (int i = 0; i < 4; ++i)
        queries.emplace_back(index->createQuerySession(200, 10))->setListener(&restless, 0);
      bulk->setListener(&batch);
      EXPECT_EQ(bulk->query(rows.data(), n, 0, 10), 0u);
      asking = std::thread([&] {
        for (u32 i = 0; queries[i % 4]->getParent() != nullptr; ++i)
          queries[i % 4]->query(row(rows, i % n), 0, 10);
      });
      EXPECT_TRUE(restless.calls.reaches(round));
    }
    const auto start = std::chrono::steady_clock::now();
    index.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    if (asking.joinable()) asking.join();
    EXPECT_TRUE(round % 2 != 0 || batch.calls.reaches(1)) << "the end of a batch is told even so";
  }
}

TEST(ContractLifetime, AnIndexMayGoInsideItsCallbacks) {
  const auto rows = random_vectors(300, 13);
  query_listener in_search;
  KorvexQuery* orphan = nullptr;
  {
    Korvex* const index = filled_index(rows).release();
    orphan = index->createQuerySession(100, 5);
    in_search.results = [index](KorvexQuery*) { index->destroy(); };
    orphan->setListener(&in_search, 0);
    ASSERT_EQ(orphan->query(row(rows, 0), 0, 5), 0u);
    ASSERT_TRUE(in_search.calls.reaches(1));
  }
  EXPECT_EQ(orphan->query(row(rows, 0), 0, 5), failed);
  orphan->destroy();

  index_listener in_indexing;
  in_indexing.ready = [](Korvex* index) { index->destroy(); };
  for (int round = 0; round < 3; ++round) {
    Korvex* const index = lib().instance(dimension);
    if (round == 0) {
      index->setThreads(0);  // this thread links, and hears the notice inside its addition
      index->setIndexListener(&in_indexing, 1);
      index->addVector(rows.data(), 0, 0);
    } else {
      index->addVectors(rows.data(), round == 1 ? 1 : 300, 0);
      index->setIndexListener(&in_indexing, 1);
    }
    EXPECT_TRUE(in_indexing.calls.reaches(round + 1));
  }
}

// Any operation beside any other, on two indexes.
class busy_host {
 public:
  busy_host(Korvex* mine, Korvex* other, const std::vector<float>& rows, unsigned seed)
      : index_(mine), other_(other), rows_(rows), random_(seed) {}

  void run(int operations) {
    query_.reset(index_->createQuerySession(50, 3));
    bulk_.reset(index_->createBulkQuerySession(20));
    query_->setListener(&listener_, 1);
    for (int i = 0; i < operations; ++i)
      step(static_cast<u32>(random_() % 12), static_cast<u32>(random_() % 200));
    query_.reset();
    bulk_.reset();
  }

 private:
  void step(u32 operation, u32 id) {
    const float* const v = row(rows_, id);
    switch (operation) {
      case 0:
        index_->addVector(v, 0, id);
        break;
      case 1:
        index_->deleteVector(id, static_cast<int>(id % 2));
        break;
      case 2:
        EXPECT_EQ(other_->distance(v, v), 0);
        break;
      case 3:
        index_->isIndexReady();
        index_->isIndexed(v);
        break;
      case 4:
        EXPECT_EQ(index_->getQuerySession(query_->getSessionId()), query_.get());
        break;
      case 5:
        query_->more();
        query_->refine();
        break;
      case 6:
        query_->filter(id);
        query_->setRadius(static_cast<int>(id));
        break;
      case 7:
        bulk_->query(v, 1, 0, 2);
        EXPECT_EQ(bulk_->getResultIds(0)->k, 2u);
        break;
      case 8:
        query_.reset(index_->createQuerySession(9, 2));
        break;
      case 9:
        query_->setListener(id % 2 != 0 ? &listener_ : nullptr, 1);
        break;
      case 10:
        other_->waitForIndexReady();
        other_->distance(id, v);
        break;
      default:
        answer(v);
    }
  }

  void answer(const float* v) {
    if (query_->query(v, 0, 4) != 0) return;
    const results_t* const results = query_->getResults(0);
    for (u32 i = 1; i < results->count; ++i)
      EXPECT_LE(results->distances[i - 1], results->distances[i]);
  }

  Korvex* const index_;
  Korvex* const other_;
  const std::vector<float>& rows_;
  std::mt19937 random_;
  query_listener listener_;
  query_ptr query_;
  bulk_ptr bulk_;
};

TEST(ContractLifetime, EveryOperationRunsBesideEveryOther) {
  const auto rows = random_vectors(200, 14);
  index_ptr a = filled_index(rows), b = filled_index(rows);
  std::vector<std::thread> hosts;
  const std::string text = log_of([&] {
    for (unsigned i = 0; i < 4; ++i)
      hosts.emplace_back([&, i] {
        busy_host(i % 2 == 0 ? a.get() : b.get(), i % 2 == 0 ? b.get() : a.get(), rows, i).run(400);
      });
    for (std::thread& host : hosts) host.join();
  });
  query_ptr query(a->createQuerySession(200, 1));
  a->waitForIndexReady();
  a->deleteVector(3, 1);
  ASSERT_EQ(query->query(row(rows, 3), 0, 1), 0u);
  EXPECT_EQ(a->distance(ids_of(query.get()).front(), row(rows, 3)), 0) << text;
}

}  // namespace
