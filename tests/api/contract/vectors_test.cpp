// Adding, deleting, measuring, and the notice that all is indexed.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <thread>

#include "library.h"
#include "listeners.h"

namespace {

TEST(ContractVectors, AreAddedDeletedAndMeasured) {
  const auto rows = random_vectors(101, 3);
  index_ptr index(lib().instance(dimension));
  EXPECT_EQ(index->addVector(row(rows, 0), 0, 0), 0u);
  EXPECT_EQ(index->addVector(row(rows, 1), -1, 0), 1u);
  EXPECT_EQ(index->addVectors(row(rows, 2), 97, -1), 2u | u64{98} << 32);
  index->this_is_preproduction_software(0);
  EXPECT_EQ(index->addVectors(row(rows, 99), 1, 0), 0u);
  EXPECT_EQ(index->addVector(row(rows, 99), 0, 0), 99u) << "single additions do not ask the switch";
  index->this_is_preproduction_software(-1);
  EXPECT_EQ(index->addVectors(row(rows, 100), 1, 0), 100u | u64{100} << 32);
  index->waitForIndexReady();
  EXPECT_EQ(index->isIndexReady(), 1);

  query_ptr query(index->createQuerySession(100, 3));
  const auto found = [&](u32 id) {
    EXPECT_EQ(query->query(row(rows, id), 0, 3), 0u);
    const auto ids = ids_of(query.get());
    return std::find(ids.begin(), ids.end(), id) != ids.end();
  };
  u32 gone[] = {5, 6, 100};
  index->deleteVectors(gone, 0, 0);
  index->deleteVectors(gone, -1, 0);
  EXPECT_TRUE(found(5));
  index->deleteVector(0, 0);
  index->deleteVectors(gone, 3, 0);
  index->deleteVector(100, 0);  // again
  for (const u32 id : {0u, 5u, 6u, 100u}) EXPECT_FALSE(found(id)) << id;
  EXPECT_TRUE(found(7));
  index->deleteVectors(gone, 2, 1);
  index->deleteVector(7, 1);  // was never deleted
  for (const u32 id : {5u, 6u, 7u}) EXPECT_TRUE(found(id)) << id;
  EXPECT_FALSE(found(100));

  const float expected = squared_distance(row(rows, 7), row(rows, 9));
  EXPECT_NEAR(index->distance(7u, row(rows, 9)), expected, expected * 1e-5);
  EXPECT_NEAR(index->distance(row(rows, 7), row(rows, 9)), expected, expected * 1e-5);
  float unit[] = {3, 0, 4, 0, 0};
  index->normalize(unit, 5);
  EXPECT_NEAR(unit[0], 0.6f, 1e-6f);
  EXPECT_NEAR(unit[2], 0.8f, 1e-6f);
}

// The classes have no operation that enables labels; the engine's functions take the record behind
// an index.
TEST(ContractVectors, LabelsComeBackAndReachTheFilter) {
  const auto enable = lib().function<void(hnsw_s*, int)>("korvex_enable_label");
  const auto label_of = lib().function<u64(hnsw_s*, u32)>("korvex_get_label");
  const auto set_callbacks =
      lib()
          .function<void(hnsw_s*, u32, int (*)(const void*, u32, u64), int (*)(u32, const void*),
                         const void*)>("korvex_search_set_callbacks");
  const auto rows = random_vectors(60, 30);
  index_ptr index(lib().instance(dimension));
  hnsw_s* const base = index->get_base(0);
  enable(base, 1);
  EXPECT_EQ(index->addVector(nullptr, 0, 77), 0u);
  for (u32 i = 0; i < 60; ++i) EXPECT_EQ(index->addVector(row(rows, i), 0, (u64{1} << 40) + i), i);
  for (u32 i = 0; i < 60; ++i) EXPECT_EQ(label_of(base, i), (u64{1} << 40) + i);
  EXPECT_EQ(label_of(base, 60), 0u);

  query_ptr query(index->createQuerySession(60, 5));
  const auto odd = [](const void*, u32, u64 label) { return static_cast<int>(label % 2); };
  set_callbacks(base, query->getSessionId(), odd, nullptr, nullptr);
  ASSERT_EQ(query->query(row(rows, 11), 0, 5), 0u);
  const auto ids = ids_of(query.get());
  EXPECT_EQ(ids.size(), 5u);
  for (const u32 id : ids) EXPECT_EQ(id % 2, 0u);
}

TEST(ContractVectors, ManyThreadsAddAndEachIdIsOne) {
  constexpr u32 threads = 4, each = 60;
  const auto rows = random_vectors(threads * each, 31);
  index_ptr index(lib().instance(dimension));
  std::vector<u32> ids(threads * each);
  std::vector<std::thread> adders;
  for (u32 t = 0; t < threads; ++t)
    adders.emplace_back([&, t] {
      for (u32 i = t * each; i < (t + 1) * each; ++i) ids[i] = index->addVector(row(rows, i), 0, 0);
    });
  for (std::thread& adder : adders) adder.join();
  index->waitForIndexReady();
  for (u32 i = 0; i < ids.size(); ++i) EXPECT_EQ(index->distance(ids[i], row(rows, i)), 0) << i;
  std::sort(ids.begin(), ids.end());
  for (u32 i = 0; i < ids.size(); ++i) EXPECT_EQ(ids[i], i);
}

TEST(ContractVectors, TheReadyNoticeComesOnceAndAtOnceWhenDue) {
  const auto rows = random_vectors(200, 7);
  index_ptr index = filled_index(rows);
  index_listener listener, later;
  index->setIndexListener(&listener, 0);
  EXPECT_EQ(listener.calls.count(), 1);
  EXPECT_EQ(listener.indexed, 200u);
  EXPECT_EQ(listener.added, 200u);
  index->setIndexListener(nullptr, 0);
  index->setIndexListener(&later, 250);
  EXPECT_EQ(later.calls.count(), 0) << "a notice already covered these";
  index->addVectors(rows.data(), 200, 0);
  EXPECT_TRUE(later.calls.reaches(1));
  index->waitForIndexReady();
  EXPECT_EQ(later.calls.count(), 1);
  EXPECT_EQ(listener.calls.count(), 1);

  index_listener searching;
  std::atomic<u32> first{failed};
  searching.ready = [&](Korvex* ready) {
    query_ptr query(ready->createQuerySession(100, 1));
    if (query->query(row(rows, 3), 0, 1) == 0) first = query->getResults(0)->ids[0];
  };
  index->setIndexListener(&searching, 1);
  index->addVectors(rows.data(), 100, 0);
  ASSERT_TRUE(searching.calls.reaches(1));
  EXPECT_EQ(first % 200, 3u) << "the vectors were added more than once";

  index_listener failing;
  std::atomic<int> thrown{0};
  failing.ready = [&](Korvex*) { throw std::runtime_error(std::to_string(++thrown)); };
  index->waitForIndexReady();
  index->addVectors(rows.data(), 1, 0);
  index->waitForIndexReady();
  const std::string text = log_of([&] { index->setIndexListener(&failing, 0); });
  EXPECT_EQ(thrown, 1);
  EXPECT_EQ(count_of(text, "onIndexReady: 1\n"), 1u) << text;
}

}  // namespace
