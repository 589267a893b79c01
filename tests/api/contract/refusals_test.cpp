// Bad arguments and calls that come too early: the failure value, one line, and nothing else.
#include <gtest/gtest.h>

#include "library.h"

namespace {

struct refusal {
  const char* what;
  const char* line;  // part of it
  std::function<bool()> answers;
};

void expect_refused(const std::vector<refusal>& table) {
  for (const refusal& entry : table) {
    const std::string text = log_of([&] { EXPECT_TRUE(entry.answers()) << entry.what; });
    EXPECT_EQ(count_of(text, "\n"), 1u) << entry.what << ": " << text;
    EXPECT_EQ(count_of(text, entry.line), 1u) << entry.what << ": " << text;
    EXPECT_TRUE(text.starts_with("E") || text.starts_with("**CRITICAL**")) << text;
  }
}

const std::vector<float> nan(dimension, std::numeric_limits<float>::quiet_NaN());
const std::vector<float> infinite(dimension, std::numeric_limits<float>::infinity());

TEST(ContractRefusals, OfTheIndex) {
  const auto rows = random_vectors(100, 10);
  index_ptr index = filled_index(rows);
  u32 missing[] = {100};
  expect_refused({
      {"add null", "addVector: a null vector",
       [&] { return index->addVector(no_vector, 0, 0) == 0; }},
      {"add nan", "not finite", [&] { return index->addVector(nan.data(), 0, 0) == 0; }},
      {"add infinity", "not finite", [&] { return index->addVector(infinite.data(), 0, 0) == 0; }},
      {"add many null", "addVectors: no vectors",
       [&] { return index->addVectors(no_vector, 3, 0) == 0; }},
      {"add none", "addVectors: no vectors",
       [&] { return index->addVectors(rows.data(), 0, 0) == 0; }},
      {"add minus one", "addVectors: no vectors",
       [&] { return index->addVectors(rows.data(), -1, 0) == 0; }},
      {"add many with nan", "not finite", [&] { return index->addVectors(nan.data(), 1, 0) == 0; }},
      {"delete a missing id", "there is no vector 100",
       [&] { return index->deleteVector(100, 0), true; }},
      {"undelete a missing id", "there is no vector 100",
       [&] { return index->deleteVectors(missing, 1, 1), true; }},
      {"delete no id", "there is no vector 4294967295",
       [&] { return index->deleteVector(failed, 0), true; }},
      {"delete null", "deleteVectors: no ids",
       [&] { return index->deleteVectors(nullptr, 2, 0), true; }},
      {"distance of a missing id", "null buffer for id: 101",
       [&] { return index->distance(100u, rows.data()) == farthest; }},
      {"distance of no id",
       "null buffer for id: ", [&] { return index->distance(failed, rows.data()) == farthest; }},
      {"distance to null",
       "null buffer for id: ", [&] { return index->distance(1u, no_vector) == farthest; }},
      {"distance from null", "distance: a null vector",
       [&] { return index->distance(no_vector, rows.data()) == farthest; }},
      {"distance between and null", "distance: a null vector",
       [&] { return index->distance(rows.data(), no_vector) == farthest; }},
      {"normalize null", "normalize: ", [&] { return index->normalize(nullptr, 4), true; }},
      {"normalize minus one",
       "normalize: ", [&] { return index->normalize(const_cast<float*>(rows.data()), -1), true; }},
      {"indexed null", "isIndexed: ", [&] { return index->isIndexed(no_vector) == 0; }},
  });
  query_ptr query(index->createQuerySession(100, 3));
  ASSERT_EQ(query->query(row(rows, 5), 0, 3), 0u);
  EXPECT_EQ(ids_of(query.get()), nearest(rows, row(rows, 5), 3)) << "the index goes on unharmed";
  EXPECT_EQ(index->addVector(rows.data(), 0, 0), 100u) << "no refusal used up an id";
}

TEST(ContractRefusals, OfTheOptions) {
  index_ptr index(lib().instance(dimension));
  expect_refused({
      {"radius 0", "setRadius: ", [&] { return index->setRadius(0, 1) == -1; }},
      {"constellation 0",
       "setConstellationSize: ", [&] { return index->setConstellationSize(0) == -1; }},
      {"probes 0", "setPatternProbes: ", [&] { return index->setPatternProbes(0), true; }},
      {"threads -1", "setThreads: ", [&] { return index->setThreads(-1), true; }},
      {"distance 3", "setDistanceType: ", [&] { return index->setDistanceType(3), true; }},
      {"distance 0", "setDistanceType: ", [&] { return index->setDistanceType(0), true; }},
      {"cache in memory", "On-Disk mode only", [&] { return index->enableDiskCache(50), true; }},
      {"disk test of null", "testDiskPerformance: a null path",
       [&] { return index->testDiskPerformance(nullptr, 0, 0, 1, 1), true; }},
  });
}

TEST(ContractRefusals, OfQueriesAndHelpers) {
  const auto rows = random_vectors(100, 11);
  index_ptr index = filled_index(rows);
  query_ptr query(index->createQuerySession(100, 3));
  bulk_ptr bulk(index->createBulkQuerySession(10));
  KorvexUtils* const utils = lib().utils();
  ASSERT_EQ(query->query(row(rows, 5), 0, 3), 0u);
  const auto before = ids_of(query.get());
  expect_refused({
      {"query null", "null v ", [&] { return query->query(no_vector, 0, 3) == failed; }},
      {"query nan", "not finite", [&] { return query->query(nan.data(), 0, 3) == failed; }},
      {"query infinity", "not finite",
       [&] { return query->query(infinite.data(), 0, 3) == failed; }},
      {"query radius", "setRadius: ", [&] { return query->setRadius(-5) == -1; }},
      {"filter no id", "filter: ", [&] { return query->filter(failed) == failed; }},
      {"bulk radius", "setRadius: ", [&] { return bulk->setRadius(-5) == -1; }},
      {"delete files of null",
       "deleteFiles: ", [&] { return utils->deleteFiles(nullptr, 0, "korvex", 0) == -1; }},
      {"delete files nowhere",
       "deleteFiles: ", [&] { return utils->deleteFiles("/no/such/place", 0, "korvex", 0) == -1; }},
      {"delete files of a long name", "deleteFiles: ",
       [&] { return utils->deleteFiles(std::string(259, '/').c_str(), 0, "korvex", 0) == -1; }},
      {"delete files of no kind",
       "deleteFiles: ", [&] { return utils->deleteFiles(".", 0, nullptr, 0) == -1; }},
  });
  EXPECT_EQ(ids_of(query.get()), before) << "refused queries keep the answer";
  for (const int k : {0, -1, std::numeric_limits<int>::min(), 1000}) {
    ASSERT_EQ(query->query(row(rows, 5), 0, k), 0u);
    EXPECT_EQ(query->getResults(0)->count, k == 1000 ? 100u : 10u) << k;
  }
  query_ptr odd(index->createQuerySession(-7, std::numeric_limits<int>::min()));
  ASSERT_EQ(odd->query(row(rows, 5), 0, 3), 0u);
  EXPECT_EQ(ids_of(odd.get()), nearest(rows, row(rows, 5), 3));
}

TEST(ContractRefusals, OfAnEmptyIndex) {
  index_ptr index(lib().instance(dimension));
  const std::vector<float> v(dimension, 1.0f);
  expect_refused({
      {"distance",
       "null buffer for id: ", [&] { return index->distance(0u, v.data()) == farthest; }},
      {"delete", "there is no vector 0", [&] { return index->deleteVector(0, 0), true; }},
  });
  index->waitForIndexReady();
  EXPECT_EQ(index->isIndexReady(), 1);
  EXPECT_EQ(index->getQuerySession(1), nullptr);
  EXPECT_EQ(index->distance(v.data(), v.data()), 0);
  query_ptr query(index->createQuerySession(10, 2));
  expect_refused({
      {"query", "No vectors were indexed, add vectors and try again",
       [&] { return query->query(v.data(), 0, 2) == failed; }},
  });
  EXPECT_EQ(query->getResults(0)->count, 0u);
  EXPECT_EQ(index->addVector(v.data(), 0, 0), 0u);
  ASSERT_EQ(query->query(v.data(), 0, 2), 0u);
  EXPECT_EQ(ids_of(query.get()), std::vector<u32>{0});
}

TEST(ContractRefusals, OfAnIndexThatCannotStart) {
  const std::vector<float> v(dimension, 1.0f);
  // Graph records beyond what a store takes; the second number wraps when it is doubled.
  for (const int size : {1 << 29, std::numeric_limits<int>::max()}) {
    index_ptr index(lib().instance(dimension));
    index->setConstellationSize(size);
    EXPECT_EQ(index->addVector(v.data(), 0, 0), 0u);
    EXPECT_EQ(index->addVectors(v.data(), 1, 0), 0u);
    query_ptr query(index->createQuerySession(10, 2));
    ASSERT_NE(query, nullptr);
    EXPECT_EQ(query->getSessionId(), 0u);
    EXPECT_EQ(query->query(v.data(), 0, 2), failed);
    EXPECT_EQ(query->more(), failed);
    EXPECT_EQ(query->refine(), failed);
    EXPECT_EQ(query->filter(0), failed);
    EXPECT_EQ(query->getResults(0), nullptr);
    EXPECT_EQ(query->getResultIds(0), nullptr);
    EXPECT_EQ(query->getResultDists(0), nullptr);
    EXPECT_EQ(query->getParent(), index.get());
    bulk_ptr bulk(index->createBulkQuerySession(10));
    EXPECT_EQ(bulk->query(v.data(), 1, 0, 2), 0u);
    EXPECT_EQ(bulk->getResultIds(0)->ids[1], 0u);
    index->setConstellationSize(16);
    EXPECT_EQ(index->addVectors(v.data(), 1, 0), 0u) << "the first vector";
    EXPECT_EQ(index->addVector(v.data(), 0, 0), 1u) << "the index goes on";
  }
}

}  // namespace
