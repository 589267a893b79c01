#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <thread>
#include <vector>

#include "api/index_object.h"
#include "api/instance_registry.h"
#include "engine/configuration.h"
#include "engine/points.h"
#include "runtime/log.h"
#include "runtime/platform/faults.h"

namespace korvex {
namespace {

// The registry only carries pointers.
KorvexImpl* object(std::uintptr_t number) {
  return reinterpret_cast<KorvexImpl*>(number * 64);
}

TEST(InstanceRegistry, IdsStartAtOneAndStayFindableThroughGrowth) {
  instance_registry registry;
  EXPECT_EQ(registry.find(0), nullptr);
  EXPECT_EQ(registry.find(7), nullptr);
  for (std::uint32_t id = 1; id <= 300; ++id) {
    ASSERT_EQ(registry.add(object(id)), id);
    if (id != 63 && id != 64 && id != 128 && id != 300) continue;
    for (std::uint32_t known = 1; known <= id; ++known)
      ASSERT_EQ(registry.find(known), object(known));
    EXPECT_EQ(registry.find(id + 1), nullptr);
  }
  EXPECT_EQ(registry.find(0), nullptr);
  EXPECT_EQ(registry.find(0xFFFFFFFF), nullptr);
  registry.clear();
  EXPECT_EQ(registry.find(1), nullptr);
}

TEST(InstanceRegistry, GivenBackIdsComeLastFirst) {
  instance_registry registry;
  constexpr std::uint32_t n = 200;  // more than the first stack of free ids takes
  for (std::uint32_t id = 1; id <= n; ++id) registry.add(object(id));
  registry.release(0);
  registry.release(5000);
  for (std::uint32_t id = 1; id <= n; ++id) registry.release(id);
  EXPECT_EQ(registry.find(n), nullptr);
  for (std::uint32_t id = n; id >= 1; --id) ASSERT_EQ(registry.add(object(id)), id);
  EXPECT_EQ(registry.add(object(1)), n + 1);
  registry.clear();
}

TEST(InstanceRegistry, WithoutMemoryIdsAreStillHandedOut) {
  instance_registry registry;
  for (std::uint32_t id = 1; id < 64; ++id) registry.add(object(id));
  platform::current_fault_hook = [](platform::fault_point) { return true; };
  EXPECT_EQ(registry.add(object(64)), 64u);
  registry.release(3);  // cleared, but there is no room to keep the id
  platform::current_fault_hook = nullptr;
  EXPECT_EQ(registry.find(64), nullptr);
  EXPECT_EQ(registry.find(3), nullptr);
  EXPECT_EQ(registry.add(object(65)), 65u);
  EXPECT_EQ(registry.find(65), object(65));
  EXPECT_EQ(registry.find(64), nullptr);
  registry.clear();
}

TEST(InstanceRegistry, LookupsRunBesideGrowthAndReuse) {
  instance_registry registry;
  std::atomic<bool> stop{false};
  std::atomic<std::uint32_t> wrong{0};
  const std::uint32_t fixed = registry.add(object(9999));
  std::thread reader([&] {
    while (!stop) {
      if (registry.find(fixed) != object(9999)) ++wrong;
      for (std::uint32_t id = 2; id < 1200; id += 7) registry.find(id);
    }
  });
  std::vector<std::thread> writers;
  for (std::uintptr_t writer = 1; writer <= 3; ++writer)
    writers.emplace_back([&, writer] {
      std::vector<std::uint32_t> mine;
      for (int i = 0; i < 600; ++i) {
        mine.push_back(registry.add(object(writer)));
        if (i % 3 != 0) continue;
        if (registry.find(mine.back()) != object(writer)) ++wrong;
        registry.release(mine.back());
        mine.pop_back();
      }
      for (const std::uint32_t id : mine)
        if (registry.find(id) != object(writer)) ++wrong;
    });
  for (std::thread& writer : writers) writer.join();
  stop = true;
  reader.join();
  EXPECT_EQ(wrong, 0u);
  registry.clear();
}

// Index objects, where the record behind them must be seen.
class IndexObject : public testing::Test {
 protected:
  IndexObject() : index_(KorvexImpl::create(4, nullptr, nullptr)) {}
  hnsw_s* base() { return index_->get_base(0); }
  void destroy() { index_.release()->destroy(); }

  std::unique_ptr<KorvexImpl> index_;
};

TEST_F(IndexObject, IsFoundByItsId) {
  const std::uint32_t id = index_->get_instance_id();
  EXPECT_EQ(KorvexImpl::get_from_instance_id(id), index_.get());
  index_->validateParameters(0);
  destroy();
  EXPECT_EQ(KorvexImpl::get_from_instance_id(id), nullptr);
}

TEST_F(IndexObject, OptionsReachTheRecordOrAreRefused) {
  const hnsw_s& record = *base();
  index_->setRadius(50, 7);
  index_->setRadius(0, 7);
  EXPECT_EQ(record.radius, 50u);
  index_->setConstellationSize(12);
  index_->setConstellationSize(-1);
  EXPECT_EQ(record.neighbour_capacity, 24u);
  index_->setThreads(0);
  index_->setThreads(-1);
  EXPECT_EQ(record.indexing_threads, 0);
  index_->setPatternProbes(5);
  index_->setPatternProbes(0);
  EXPECT_EQ(record.pattern_probes, 5u);
  index_->setDistanceType(Korvex::DISTANCE_INNER_PRODUCT);
  index_->setDistanceType(static_cast<Korvex::DistanceType>(3));
  EXPECT_EQ(record.distance_type, 4u);
  index_->setQueryThreads(3, -2);
  EXPECT_EQ(record.search_threads, 3);
  EXPECT_EQ(record.search_queue_limit, -2);
  index_->setAllocationUnits(77);
  EXPECT_EQ(record.allocation_units, 77u);
  EXPECT_EQ(record.allocation_units_flag, 0u);
  const float v[4] = {1, 2, 3, 4};
  index_->addVector(v, 0, 0);
  index_->setAllocationUnits(99);
  EXPECT_EQ(record.allocation_units, 77u) << "the stores exist";
  destroy();
}

TEST_F(IndexObject, LabelsStayWithTheirVectors) {
  korvex_enable_label(base(), 1);
  const float good[4] = {1, 2, 3, 4};
  const float bad[4] = {1, std::numeric_limits<float>::quiet_NaN(), 3, 4};
  EXPECT_EQ(index_->addVector(bad, 0, 500), 0u);
  EXPECT_EQ(index_->addVector(good, 0, 600), 0u);
  EXPECT_EQ(index_->addVector(bad, 0, 700), 0u)
      << "refused: its label must not reach the first vector";
  EXPECT_EQ(index_->addVector(good, 0, 800), 1u);
  EXPECT_EQ(korvex_get_label(base(), 0), 600u);
  EXPECT_EQ(korvex_get_label(base(), 1), 800u);
  destroy();
}

TEST_F(IndexObject, ConcurrentFirstAddersKeepTheirLabels) {
  korvex_enable_label(base(), 1);
  constexpr std::uint64_t refused_label = 1'000'000;
  std::vector<std::thread> adders;
  for (std::uint64_t adder = 0; adder < 4; ++adder)
    adders.emplace_back([this, adder] {
      for (std::uint64_t i = 0; i < 50; ++i) {
        const std::uint64_t label = 1 + adder * 50 + i;
        const float v[4] = {static_cast<float>(label), 0, 0, 1};
        const float bad[4] = {0, 0, 0, std::numeric_limits<float>::infinity()};
        index_->addVector(adder % 2 == 0 ? v : bad, 0, adder % 2 == 0 ? label : refused_label);
      }
    });
  for (std::thread& adder : adders) adder.join();
  for (std::uint32_t id = 0; id < 100; ++id) {
    const float* const stored = vector_of(*base()->runtime, id + 1);
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(korvex_get_label(base(), id), static_cast<std::uint64_t>(stored[0])) << id;
  }
  destroy();
}

}  // namespace
}  // namespace korvex
