// The options of an index: what they answer, what they change, and that none can stop it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>

#include "library.h"

namespace {

constexpr int largest = std::numeric_limits<int>::max();
constexpr int smallest = std::numeric_limits<int>::min();

void expect_right_answers(Korvex* index, const std::vector<float>& rows) {
  query_ptr query(index->createQuerySession(300, 5));
  for (const u32 id : {0u, 7u, static_cast<u32>(rows.size() / dimension) - 1}) {
    ASSERT_EQ(query->query(row(rows, id), 0, 5), 0u);
    EXPECT_EQ(ids_of(query.get()), nearest(rows, row(rows, id), 5)) << id;
  }
}

TEST(ContractOptions, AnswerAndNeverStopTheIndex) {
  index_ptr index(lib().instance(dimension));
  for (const int bad : {0, -1, smallest}) {
    EXPECT_EQ(index->setConstellationSize(bad), -1);
    EXPECT_EQ(index->setRadius(bad, 9), -1);
    index->setPatternProbes(bad);
    index->setDistanceType(bad == 0 ? 3 : bad);
  }
  EXPECT_EQ(index->setConstellationSize(8), 0);
  EXPECT_EQ(index->setRadius(50, -7), 0);
  index->setAllocationUnits(100);
  index->enableDiskCache(1000);
  index->enableHugePages(0);
  index->setNUMANode(-1);
  index->setQuantization(8);
  index->setQuantizationThreshold(0.5f);
  index->setPatternProbes(3);
  index->setThreads(-1);
  index->setThreads(2);
  index->setQueryThreads(1, -1);
  index->setIndexOptimization(1);
  index->setSearchOptimization(1);
  index->setDistanceType(1);
  index->setMipsMode();
  index->setNormalize(0);
  index->enableDuplicateDetection(1);
  index->setDuplicateThreshold(0, 0, 0);
  index->destroyIndexOnDelete(1);
  index->syncToDisk(0);
  EXPECT_NE(index->get_base(0), nullptr);
  EXPECT_EQ(index->get_base(0), index->get_base(-5));
  EXPECT_EQ(index->isIndexReady(), 1);

  const auto rows = random_vectors(300, 2);
  index->addVectors(rows.data(), 300, 0);
  index->waitForIndexReady();
  EXPECT_EQ(index->isIndexed(row(rows, 0)), 0);
  EXPECT_EQ(index->isDuplicate(row(rows, 0), 1e9f), 0);
  EXPECT_EQ(index->isDuplicate(nullptr, 0), 0);
  expect_right_answers(index.get(), rows);
}

TEST(ContractOptions, ExtremesAreBounded) {
  const auto rows = random_vectors(300, 20);
  index_ptr index(lib().instance(dimension));
  index->setAllocationUnits(0);
  index->enableHugePages(largest);
  index->setNUMANode(1000);
  index->setPatternProbes(largest);
  EXPECT_EQ(index->setRadius(largest, 0), 0);
  index->setQueryThreads(smallest, largest);
  index->setThreads(0);
  index->addVectors(rows.data(), 300, 0);
  EXPECT_EQ(index->isIndexReady(), 1) << "no thread is left to wait for";
  expect_right_answers(index.get(), rows);
}

TEST(ContractOptions, ComeTooLateAfterTheFirstAddition) {
  const auto rows = random_vectors(300, 21);
  index_ptr index(lib().instance(dimension));
  index->addVectors(rows.data(), 150, 0);
  index->setAllocationUnits(1);
  EXPECT_EQ(index->setConstellationSize(500), 0);
  index->setPatternProbes(16);
  index->setThreads(0);
  index->setQueryThreads(1, 1);
  index->setNormalize(0);
  index->enableDuplicateDetection(1);
  index->addVectors(row(rows, 150), 150, 0);
  index->waitForIndexReady();
  expect_right_answers(index.get(), rows);
}

float dot(const float* a, const float* b) {
  float sum = 0;
  for (int d = 0; d < dimension; ++d) sum += a[d] * b[d];
  return sum;
}

TEST(ContractOptions, EveryDistanceHasItsValueAndItsOrder) {
  const auto rows = random_vectors(200, 22);
  const struct {
    int type;
    bool larger_is_nearer;
    float (*reference)(const float*, const float*);
  } metrics[] = {
      {1, false, squared_distance},
      {2, false, [](const float* a, const float* b) { return std::sqrt(squared_distance(a, b)); }},
      {4, true, dot},
  };
  for (const auto& metric : metrics) {
    index_ptr index(lib().instance(dimension));
    index->setDistanceType(metric.type);
    const float sign = metric.larger_is_nearer ? -1.0f : 1.0f;
    EXPECT_EQ(index->distance(0u, rows.data()), sign * farthest) << "nothing is there yet";
    index->addVectors(rows.data(), 200, 0);
    index->waitForIndexReady();
    const float* const v = row(rows, 33);
    std::vector<float> truth;
    for (u32 i = 0; i < 200; ++i) truth.push_back(sign * metric.reference(row(rows, i), v));
    std::sort(truth.begin(), truth.end());
    query_ptr query(index->createQuerySession(200, 10));
    ASSERT_EQ(query->query(v, 0, 10), 0u);
    const results_t* const results = query->getResults(0);
    ASSERT_EQ(results->count, 10u);
    for (u32 i = 0; i < 10; ++i) {
      EXPECT_NEAR(results->distances[i], sign * truth[i], 1.0f) << metric.type << " " << i;
      EXPECT_FLOAT_EQ(index->distance(results->ids[i], v), results->distances[i]);
      EXPECT_FLOAT_EQ(index->distance(row(rows, results->ids[i]), v), results->distances[i]);
    }
    EXPECT_EQ(index->distance(200u, v), sign * farthest);
    EXPECT_EQ(index->distance(v, nullptr), sign * farthest);
  }
}

TEST(ContractOptions, NormalizingStoresAndSearchesUnitCopies) {
  auto rows = random_vectors(100, 23);
  index_ptr index(lib().instance(dimension));
  index->setNormalize(1);
  index->addVectors(rows.data(), 100, 0);
  std::vector<float> v(row(rows, 9), row(rows, 9) + dimension);
  for (float& component : v) component *= 10;  // the same direction
  query_ptr query(index->createQuerySession(100, 1));
  ASSERT_EQ(query->query(v.data(), 0, 1), 0u);
  const results_t* const results = query->getResults(0);
  EXPECT_EQ(results->ids[0], 9u);
  EXPECT_NEAR(results->distances[0], 0, 1e-4);
  index->normalize(v.data(), dimension);
  EXPECT_NEAR(dot(v.data(), v.data()), 1, 1e-5);
  EXPECT_NEAR(index->distance(9u, v.data()), 0, 1e-4);
  index->normalize(v.data(), 0);
}

TEST(ContractOptions, RepeatedVectorsShowOnce) {
  auto rows = random_vectors(60, 24);
  const auto copies = rows;
  index_ptr index(lib().instance(dimension));
  index->setDuplicateThreshold(1, 0.5f, 1);
  index->addVectors(rows.data(), 60, 0);
  index->waitForIndexReady();
  index->addVectors(copies.data(), 60, 0);
  index->waitForIndexReady();
  query_ptr query(index->createQuerySession(120, 120));
  for (const u32 id : {3u, 30u, 59u}) {
    ASSERT_EQ(query->query(row(rows, id), 0, 120), 0u);
    auto ids = ids_of(query.get());
    ASSERT_FALSE(ids.empty());
    EXPECT_EQ(ids.front() % 60, id);
    EXPECT_EQ(std::count_if(ids.begin(), ids.end(), [&](u32 x) { return x % 60 == id; }), 1) << id;
  }
}

TEST(ContractOptions, WithoutValidationAnythingIsTaken) {
  const auto rows = random_vectors(100, 25);
  const std::vector<float> nan(dimension, std::numeric_limits<float>::quiet_NaN());
  index_ptr index = filled_index(rows);
  index->validateParameters(0);
  EXPECT_EQ(index->addVector(nan.data(), 0, 0), 100u);
  index->deleteVector(100, 0);
  query_ptr query(index->createQuerySession(100, 3));
  EXPECT_EQ(query->query(nan.data(), 0, 3), 0u);
  EXPECT_LE(ids_of(query.get()).size(), 3u);
  index->validateParameters(1);
  EXPECT_EQ(query->query(nan.data(), 0, 3), failed);
  expect_right_answers(index.get(), rows);
}

TEST(ContractOptions, DiskFiguresAreKeptAndLowOnesBringAdvice) {
  const temporary_directory drive;
  const std::string kept = drive.name() + "/iops_result.txt";
  const std::string blocked = kept + "/below";
  index_ptr index(lib().instance(dimension));
  const struct {
    const char* figures;
    int advice;
  } rows[] = {{"60000.00\n100000.00\n", 0}, {"60000.00\n90000.00\n", 1}, {"49999.00\n1e6\n", 1}};
  for (const auto& entry : rows) {
    std::ofstream(kept, std::ios::binary) << entry.figures;
    const std::string text =
        log_of([&] { index->testDiskPerformance(drive.name().c_str(), 0, 0, 1, 0); });
    EXPECT_EQ(count_of(text, "loading resuls from " + kept + "\n"), 1u) << text;
    EXPECT_EQ(count_of(text, "Disk IOPS (cached): read "), 1u) << text;
    EXPECT_EQ(count_of(text, "Warning: Suboptimal Disk Performance Detected\n"),
              static_cast<std::size_t>(entry.advice))
        << text;
  }
  EXPECT_EQ(count_of(log_of([&] { index->testDiskPerformance(drive.name().c_str(), 1, 1, 1, 0); }),
                     "Disk IOPS (cached): read 49999.000000 write 1000000.000000\n"),
            1u);
  const std::string text = log_of([&] { index->testDiskPerformance(blocked.c_str(), 0, 0, 1, 1); });
  EXPECT_EQ(count_of(text, "failed to open test file: "), 1u) << text;
  EXPECT_EQ(count_of(text, "loading resuls"), 0u) << "the figures were not asked for";
  EXPECT_EQ(count_of(text, "Disk IOPS"), 0u) << text;
  EXPECT_EQ(count_of(text, "Warning: Suboptimal Disk Performance Detected\n"), 1u) << text;
}

}  // namespace
