#include "storage/bloom_filter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "runtime/platform/threads.h"

namespace korvex {
namespace {

constexpr int bloom_kind = 9;

struct destroyer {
  void operator()(scalable_bloom_filters_s* filter) const { sbf_destroy(filter); }
};
using filter_ptr = std::unique_ptr<scalable_bloom_filters_s, destroyer>;

// The smallest unit there is, 2^18 bytes; `fill` decides how soon it counts as full.
filter_ptr small_filter(vectpool_conf_s* conf, double fill, std::uint32_t capacity = 0) {
  return filter_ptr(sbf_create(capacity, 0.9, fill, 1, conf, bloom_kind));
}

int add(const filter_ptr& filter, std::uint64_t item) {
  return sbf_add(filter.get(), &item, 8);
}
bool has(const filter_ptr& filter, std::uint64_t item) {
  return sbf_exists(filter.get(), &item, 8);
}

class BloomFilterFiles : public testing::Test {
 protected:
  BloomFilterFiles()
      : directory_(std::filesystem::temp_directory_path() /
                   ("korvex-bloom-" + std::to_string(platform::process_id()))),
        path_(directory_.string()) {
    std::filesystem::remove_all(directory_);
    std::filesystem::create_directories(directory_);
  }
  ~BloomFilterFiles() override { std::filesystem::remove_all(directory_); }

  filter_ptr open(double fill, std::uint32_t capacity = 0) {
    vectpool_conf_s conf;
    conf.directory = path_.c_str();
    conf.persistent = 1;
    return small_filter(&conf, fill, capacity);
  }
  // Overwrites bytes of the unit with this id; its file is told by the id in its head.
  void patch(std::uint32_t id, std::uint64_t offset, const std::string& bytes) {
    for (const auto& file : std::filesystem::directory_iterator(directory_)) {
      std::fstream stream(file.path(), std::ios::in | std::ios::out | std::ios::binary);
      std::uint32_t found = 0;
      stream.seekg(128 + 8).read(reinterpret_cast<char*>(&found), 4);
      if (found != id) continue;
      stream.seekp(static_cast<std::streamoff>(128 + offset));
      stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
      return;
    }
    FAIL() << "no unit " << id;
  }

  std::filesystem::path directory_;
  std::string path_;
};

TEST(BloomFilter, SizesFollowTheWish) {
  struct row {
    std::uint32_t capacity;
    double error, fill;
    std::uint32_t k, want_k, want_bits, want_bytes, want_items;
  };
  const row rows[] = {
      {1000000, 0.001, 0.75, 0, 10, 16776960, 2097152, 1258272},
      {7, 2.0, -1.0, 0, 10, 16776960, 2097152, 1258272},
      {7, std::nan(""), 1.0, 0, 10, 16776960, 2097152, 1258272},
      {300000000, 0.001, 0.75, 0, 10, 4294967040, 1U << 30, 322122528},
      {4294967295, 1e-300, 0.5, 0, 64, 4294967040, 1U << 30, 33554430},
      {1000000, 0.9, 1e-9, 1, 1, 2096896, 262144, 1},
      {1000000, 0.5, 0.5, 0, 1, 2096896, 262144, 1048448},
      {1000000, 0.01, 0.75, 99, 64, 134217472, 16777216, 1572861},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.capacity * r.error);
    const sbf_sizing_s got = sbf_size(r.capacity, r.error, r.fill, r.k);
    EXPECT_EQ(got.parameters.hashes, r.want_k);
    EXPECT_EQ(got.parameters.bits, r.want_bits);
    EXPECT_EQ(got.unit_bytes, r.want_bytes);
    EXPECT_EQ(got.parameters.words, (r.want_bytes - 32) / 8);
    EXPECT_EQ(got.parameters.max_items, r.want_items);
  }
}

std::vector<std::uint64_t> set_bits(const sbf_unit_s* unit, std::uint32_t words) {
  const auto* array = reinterpret_cast<const std::uint64_t*>(unit + 1);
  std::vector<std::uint64_t> bits;
  for (std::uint64_t bit = 0; bit < std::uint64_t{words} * 64; ++bit)
    if ((array[bit / 64] >> (bit % 64) & 1) != 0) bits.push_back(bit);
  return bits;
}

TEST(BloomFilter, StoredBytesNeverChange) {
  const std::string head("FBSP\1\0\0\0", 8);
  const std::string items[] = {
      "korvex",
      "a somewhat longer item, of more than eighty bytes in all, so that the other step counts"};
  const std::vector<std::uint64_t> base = {15894304, 12334837};
  const std::set<std::uint64_t> unit = {2462561,  4685618,  14710369, 13757606, 2973366,
                                        12201718, 13494704, 5506738,  3069318,  6132981,
                                        6839811,  12794487, 11526574, 5755370,  8680633,
                                        1636074,  6557470,  14491759, 14487970, 6247845};
  vectpool_conf_s conf;
  const filter_ptr filter(sbf_create(0, 0, 0, 0, &conf, bloom_kind));
  for (const std::string& item : items)
    ASSERT_EQ(sbf_add(filter.get(), item.data(), item.size()), 1);

  const std::uint32_t base_words[] = {0, 2, 10, 16776960, 262140, 1258272};
  const std::uint32_t unit_words[] = {1, 2, 0, 0, 0, 0};
  for (const auto& [item, words] :
       {std::pair{filter->base, base_words}, std::pair{filter->units[0], unit_words}}) {
    EXPECT_EQ(std::memcmp(item, head.data(), 8), 0);
    EXPECT_EQ(std::memcmp(reinterpret_cast<const char*>(item) + 8, words, 24), 0);
  }
  EXPECT_EQ(set_bits(filter->base, 262140), (std::vector<std::uint64_t>{base[1], base[0]}));
  EXPECT_EQ(set_bits(filter->units[0], 262140),
            std::vector<std::uint64_t>(unit.begin(), unit.end()));
}

TEST(BloomFilter, GrowsToThirtyTwoUnitsAndStops) {
  vectpool_conf_s conf;
  const filter_ptr filter = small_filter(&conf, 1.5e-5);  // 31 items a unit
  const std::uint32_t most = 32 * filter->parameters.max_items;
  for (std::uint32_t i = 0; i < most; ++i) ASSERT_EQ(add(filter, i * 7919), 1);
  for (std::uint32_t i = 0; i < 10; ++i) EXPECT_EQ(add(filter, most * 7919 + i), 0);
  EXPECT_EQ(filter->pool->size(), 1U + 32 + 1) << "one item beyond the limit, once";
  EXPECT_EQ(sbf_count(filter.get()), most);
  for (std::uint32_t i = 0; i < most; ++i) ASSERT_TRUE(has(filter, i * 7919));

  std::uint32_t wrong = 0;
  for (std::uint64_t i = 0; i < 20000; ++i) wrong += has(filter, (1ULL << 40) + i) ? 1 : 0;
  EXPECT_LT(wrong, 20U) << "base bit and unit bit must both be hit";
  const double unit_rate = 1 - std::exp(-31.0 / 2096896);
  EXPECT_NEAR(sbf_false_positive_rate(filter.get()), 1 - std::pow(1 - unit_rate, 32), 1e-9);

  // The base bit alone decides about absence.
  std::memset(filter->base + 1, 0, std::size_t{filter->parameters.words} * 8);
  EXPECT_FALSE(has(filter, 0));
}

TEST(BloomFilter, JudgesStoredHeads) {
  const sbf_unit_s good{0x50534246, 1, 0, 5, {10, 1020 * 64, 1020, 3}};
  constexpr std::uint32_t bytes = 8192;
  struct row {
    std::uint32_t word, value;
    sbf_item_state base, unit;
  };
  constexpr auto ok = sbf_item_state::good;
  constexpr auto bad = sbf_item_state::corrupted;
  const row rows[] = {
      {4, 10, ok, ok},    {4, 0, ok, ok},           {4, 64, ok, ok},
      {4, 65, bad, ok},   {4, 0xFFFFFFFF, bad, ok}, {5, 0, bad, ok},
      {5, 1, bad, ok},    {5, 65281, bad, ok},      {6, 0, bad, ok},
      {6, 1021, bad, ok}, {7, 0, bad, ok},          {7, 0xFFFFFFFF, ok, ok},
      {0, 0, bad, bad},   {1, 2, bad, bad},         {3, 0xFFFFFFFF, ok, ok},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(testing::Message() << "word " << r.word << " = " << r.value);
    std::uint32_t words[8];
    std::memcpy(words, &good, 32);
    words[r.word] = r.value;
    sbf_parameters_s out{};
    EXPECT_EQ(sbf_check_base(words, bytes, &out), r.base);
    EXPECT_EQ(sbf_check_unit(words, bytes), r.unit);
    EXPECT_EQ(out.words, r.base == ok ? 1020U : 0U);
  }
  const sbf_unit_s blank{};
  EXPECT_EQ(sbf_check_unit(&blank, bytes), sbf_item_state::blank);
  EXPECT_EQ(sbf_check_unit(&blank, 32), bad);
}

TEST_F(BloomFilterFiles, ComeBackWhateverIsAskedFor) {
  {
    const filter_ptr filter = open(5e-5);
    for (std::uint64_t i = 0; i < 250; ++i) ASSERT_EQ(add(filter, i), 1);
    ASSERT_EQ(filter->unit_count, 3U);
  }
  for (const std::uint32_t capacity : {0U, 10000000U}) {
    const filter_ptr filter = open(0.75, capacity);
    ASSERT_NE(filter, nullptr);
    EXPECT_EQ(filter->parameters.words, 32764U);
    EXPECT_EQ(filter->parameters.max_items, 104U);
    EXPECT_EQ(filter->unit_count, 3U);
    EXPECT_EQ(sbf_count(filter.get()), 250U + (capacity == 0 ? 0 : 1));
    for (std::uint64_t i = 0; i < 250; ++i) ASSERT_TRUE(has(filter, i));
    EXPECT_EQ(add(filter, 1000 + capacity), 1);
  }
  patch(1, 0, std::string(32, '\0'));
  EXPECT_EQ(open(0.75), nullptr) << "only the newest unit can have been cut off";
}

TEST_F(BloomFilterFiles, ACutOffUnitIsMadeAgainAndDamageIsRefused) {
  { ASSERT_EQ(add(open(0.5), 1), 1); }
  patch(1, 0, std::string(32, '\0'));
  {
    const filter_ptr filter = open(0.5);
    ASSERT_NE(filter, nullptr);
    EXPECT_EQ(add(filter, 2), 1);
    EXPECT_TRUE(has(filter, 2));
  }
  patch(1, 0, "x");
  EXPECT_EQ(open(0.5), nullptr);
  patch(1, 0, "F");
  patch(0, 20, std::string(4, '\0'));  // bits per unit
  EXPECT_EQ(open(0.5), nullptr);
}

TEST(BloomFilter, LookupsRunBesideAnAdder) {
  vectpool_conf_s conf;
  const filter_ptr filter = small_filter(&conf, 5e-5);
  std::atomic<std::uint64_t> added{0};
  std::thread reader([&] {
    while (added < 1000) {
      const std::uint64_t seen = added;
      for (std::uint64_t i = seen > 20 ? seen - 20 : 0; i < seen; ++i) EXPECT_TRUE(has(filter, i));
    }
  });
  for (std::uint64_t i = 0; i < 1000; ++i) {
    EXPECT_EQ(add(filter, i), 1);
    added = i + 1;
  }
  reader.join();
}

}  // namespace
}  // namespace korvex
