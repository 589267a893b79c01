// Many queries in one call.
#include <gtest/gtest.h>

#include <stdexcept>

#include "library.h"
#include "listeners.h"

namespace {

TEST(ContractBulk, AnswersAsSingleQueriesDo) {
  const auto rows = random_vectors(500, 8);
  bulk_listener listener;
  index_ptr index = filled_index(rows);
  bulk_ptr bulk(index->createBulkQuerySession(200));
  query_ptr single(index->createQuerySession(200, 4));
  EXPECT_NE(bulk->get_objid(), single->get_objid());
  EXPECT_EQ(bulk->setRadius(-1), -1);
  EXPECT_EQ(bulk->setRadius(200), 0);
  bulk->setUserData(&bulk);
  EXPECT_EQ(bulk->getUserData(), &bulk);
  for (int round = 0; round < 2; ++round) {
    bulk->setListener(round == 1 ? &listener : nullptr);
    const std::string text = log_of([&] {
      const auto queries = random_vectors(100, 9);  // the host's may go at once
      ASSERT_EQ(bulk->query(queries.data(), 100, -1, 4), 0u);
    });
    EXPECT_EQ(count_of(text, "bulk queries 100 radius 200 k 4\n"), 1u) << text;
    ASSERT_TRUE(round == 0 || listener.calls.reaches(1));
    const bulk_results_t* const results = bulk->getResultIds(0);
    ASSERT_EQ(results->query_count, 100u);
    ASSERT_EQ(results->k, 4u);
    EXPECT_EQ(results->valid, 1u);
    const auto queries = random_vectors(100, 9);
    for (u32 i = 0; i < 100; ++i) {
      ASSERT_EQ(single->query(row(queries, i), 0, 4), 0u);
      EXPECT_EQ(ids_of(single.get()),
                std::vector<u32>(results->ids + 4 * i, results->ids + 4 * i + 4))
          << i;
    }
  }
}

TEST(ContractBulk, PrintsWhatItFound) {
  const auto rows = random_vectors(100, 50);
  index_ptr index = filled_index(rows);
  bulk_ptr bulk(index->createBulkQuerySession(100));
  ASSERT_EQ(bulk->query(row(rows, 0), 2, 0, 3), 0u);
  const std::string text = log_of([&] { bulk->printResults(); });
  EXPECT_EQ(count_of(text, "result k=3 count 2\n"), 1u) << text;
  EXPECT_EQ(count_of(text, "(bulk 0)\n[0, "), 1u) << text;
  EXPECT_EQ(count_of(text, "(bulk 1)\n[1, "), 1u) << text;
  EXPECT_EQ(count_of(text, "(bulk "), 2u) << text;
}

TEST(ContractBulk, NothingToAnswerIsAnsweredWithZeros) {
  const auto rows = random_vectors(20, 51);
  index_ptr index = filled_index(rows), empty(lib().instance(dimension));
  bulk_ptr bulk(index->createBulkQuerySession(10)), of_none(empty->createBulkQuerySession(10));
  ASSERT_NE(bulk->getResultIds(0), nullptr) << "before the first batch";
  EXPECT_EQ(bulk->getResultIds(0)->query_count, 0u);
  const struct {
    const char* line;  // null: no complaint
    KorvexBulkQuery* of;
    const float* vectors;
    int n, k;
    u32 rows, columns;
  } table[] = {
      {"no vectors", bulk.get(), nullptr, 2, 3, 2, 3},
      {"no vectors", bulk.get(), rows.data(), -1, 3, 0, 3},
      {"No vectors were indexed", of_none.get(), rows.data(), 3, 2, 3, 2},
      {nullptr, bulk.get(), rows.data(), 0, 3, 0, 3},
      {nullptr, bulk.get(), nullptr, 0, -3, 0, 10},
  };
  for (const auto& entry : table) {
    bulk_listener told;
    entry.of->setListener(&told);
    const std::string text = log_of([&] {
      EXPECT_EQ(entry.of->query(entry.vectors, entry.n, 0, entry.k), 0u);
      EXPECT_TRUE(told.calls.reaches(1)) << entry.n;
    });
    EXPECT_EQ(count_of(text, "\n"), entry.line == nullptr ? 1u : 2u) << text;
    if (entry.line != nullptr) EXPECT_EQ(count_of(text, entry.line), 1u) << text;
    const bulk_results_t* const results = entry.of->getResultIds(0);
    ASSERT_EQ(results->query_count, entry.rows);
    EXPECT_EQ(results->k, entry.columns);
    for (u32 i = 0; i < entry.rows * entry.columns; ++i) EXPECT_EQ(results->ids[i], 0u);
    entry.of->setListener(nullptr);
  }
  for (const int k : {0, -1}) {
    ASSERT_EQ(bulk->query(row(rows, 4), 1, 0, k), 0u);
    const bulk_results_t* const results = bulk->getResultIds(0);
    ASSERT_EQ(results->k, 10u);
    EXPECT_EQ(std::vector<u32>(results->ids, results->ids + 10), nearest(rows, row(rows, 4), 10));
  }
  ASSERT_EQ(bulk->query(row(rows, 4), 2, 0, 50), 0u);
  const bulk_results_t* const wide = bulk->getResultIds(0);
  EXPECT_EQ(wide->ids[50], 5u);
  EXPECT_EQ(wide->ids[50 + 20], 0u) << "no more than 20 are there";
}

TEST(ContractBulk, ARefusedQueryLeavesARowOfZeros) {
  auto queries = random_vectors(30, 52);
  const auto rows = random_vectors(30, 52);
  queries[7 * dimension + 2] = std::numeric_limits<float>::infinity();
  index_ptr index = filled_index(rows);
  bulk_ptr bulk(index->createBulkQuerySession(30));
  ASSERT_EQ(bulk->query(queries.data(), 30, 0, 2), 0u);
  const u32* const ids = bulk->getResultIds(0)->ids;
  for (u32 i = 0; i < 30; ++i) EXPECT_EQ(ids[2 * i], i == 7 ? 0 : i) << i;
  EXPECT_EQ(ids[15], 0u);
}

TEST(ContractBulk, ANewBatchOrTheEndWaitsForTheOneBefore) {
  const auto rows = random_vectors(200, 53);
  index_ptr index = filled_index(rows);
  bulk_listener listener;
  std::atomic<int> thrown{0};
  listener.results = [&](KorvexBulkQuery* done) {
    EXPECT_EQ(done->getResultIds(0)->query_count, 200u);
    ++thrown;
    throw std::runtime_error("of the host");
  };
  bulk_ptr bulk(index->createBulkQuerySession(50));
  bulk->setListener(&listener);
  for (int round = 0; round < 5; ++round)
    ASSERT_EQ(bulk->query(rows.data(), 200, 0, 5), 0u) << round;
  bulk.reset();
  EXPECT_EQ(thrown, 5) << "each batch was told";

  bulk_listener chain;
  int left = 4;
  chain.results = [&](KorvexBulkQuery* done) {
    if (--left > 0)
      EXPECT_EQ(done->query(rows.data(), left, 0, 3), 0u);
    else
      done->destroy();
  };
  KorvexBulkQuery* const restless = index->createBulkQuerySession(50);
  restless->setListener(&chain);
  ASSERT_EQ(restless->query(rows.data(), 100, 0, 3), 0u);
  EXPECT_TRUE(chain.calls.reaches(4));
}

}  // namespace
