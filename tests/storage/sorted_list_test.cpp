#include "storage/sorted_list.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "storage_fixture.h"

namespace korvex {
namespace {

using testing_support::StorageFixture;
class SortedList : public StorageFixture {};

constexpr float infinity = std::numeric_limits<float>::infinity();

// What the working lists of the graph put into a list.
struct [[gnu::packed, gnu::aligned(4)]] entry_s {
  std::uint32_t id;
  float distance;
  std::uint16_t hops, spare;
  linklist_link_s link;
};
static_assert(sizeof(entry_s) == 44 && offsetof(entry_s, link) == 12);

// The plain truth: a vector, and "before the first key that is not smaller".
struct model_s {
  std::vector<std::pair<float, void*>> items;
  std::uint32_t popped_front = 0, popped_back = 0;

  void add(float key, void* data) {
    if (std::isnan(key)) key = std::numeric_limits<float>::max();
    items.emplace(std::lower_bound(items.begin(), items.end(), key,
                                   [](const auto& item, float k) { return item.first < k; }),
                  key, data);
  }
  void* front() {
    if (items.empty()) return nullptr;
    void* data = items.front().second;
    items.erase(items.begin());
    popped_front++;
    return data;
  }
  void* back() {
    if (items.empty()) return nullptr;
    void* data = items.back().second;
    items.pop_back();
    popped_back--;
    return data;
  }
};

void expect_same(const sortedlist_c& list, const model_s& model) {
  ASSERT_EQ(list.size(), static_cast<int>(model.items.size()));
  ASSERT_EQ(list.popped_front(), model.popped_front);
  ASSERT_EQ(list.popped_back(), model.popped_back);
  const linklist_link_s *link = list.get_head(), *before = nullptr;
  for (const auto& [key, data] : model.items) {
    ASSERT_EQ(float{link->key}, key);
    ASSERT_EQ(static_cast<void*>(link->data), data);
    ASSERT_EQ(static_cast<const linklist_link_s*>(link->prev), before);
    before = link;
    link = link->next;
  }
  ASSERT_EQ(link, nullptr);
  ASSERT_EQ(list.get_tail(), before);
}

enum class key_kind { uniform, few, ascending, descending, strange };

float make_key(key_kind kind, std::mt19937& random, int step) {
  const float strange[] = {-infinity, infinity, NAN, -0.0F, 0.0F, 3.4028235e38F, 1e-45F, 1.0F};
  switch (kind) {
    case key_kind::uniform:
      return std::uniform_real_distribution<float>(0, 1000)(random);
    case key_kind::few:
      return static_cast<float>(random() % 5);
    case key_kind::ascending:
      return static_cast<float>(step / 2);
    case key_kind::descending:
      return -static_cast<float>(step / 3);
    default:
      return strange[random() % 8];
  }
}

// One step in `calm` empties, trims or drains; the sizes reached range from a few links to
// thousands.
void run_against_model(key_kind kind, unsigned calm, int steps, std::uint32_t seed) {
  SCOPED_TRACE(testing::Message() << "kind " << static_cast<int>(kind) << " calm " << calm
                                  << " seed " << seed);
  std::mt19937 random(seed);
  blockpool_s* pool = blockpool_create(sizeof(entry_s), 16);
  sortedlist_c list(0, nullptr, nullptr);
  model_s model;
  for (int step = 0; step < steps; step++) {
    const unsigned roll = random() % calm;
    if (roll == 0) {
      const int n = static_cast<int>(random() % (model.items.size() + 2)) - 1;
      list.trim(n);
      while (n >= 0 && model.items.size() > static_cast<std::size_t>(n)) model.back();
      expect_same(list, model);
    } else if (roll == 1 && step % 7 == 0) {
      list.reset();
      blockpool_reset(pool);
      model = {};
    } else if (roll < 6) {
      for (unsigned i = random() % 4; i > 0; i--) ASSERT_EQ(list.front(), model.front());
    } else if (roll < 12) {
      ASSERT_EQ(list.peek_back(), model.items.empty() ? nullptr : model.items.back().second);
      ASSERT_EQ(list.back(), model.back());
    } else {
      auto* element = static_cast<entry_s*>(blockpool_alloc(pool));
      element->link.data = element;
      element->link.tag = 99;
      const float key = make_key(kind, random, step);
      ASSERT_EQ(list.add(&element->link, key), 0);
      ASSERT_EQ(std::uint32_t{element->link.tag}, 0U);
      model.add(key, element);
    }
  }
  expect_same(list, model);
  blockpool_destroy(pool);
}

TEST_F(SortedList, AgreesWithAPlainVectorOnEveryKindOfKeys) {
  for (const key_kind kind : {key_kind::uniform, key_kind::few, key_kind::ascending,
                              key_kind::descending, key_kind::strange})
    for (const unsigned calm : {20U, 200U, 3000U}) run_against_model(kind, calm, 6000, calm * 31);
  EXPECT_EQ(take_lines(), "");
}

TEST_F(SortedList, TakesLinksFromItsPoolAndGivesThemBackAtReset) {
  sortedlist_c list(3, nullptr, nullptr);
  int payloads[5] = {};
  const float keys[] = {3, 1, 2, 2};
  for (int i = 0; i < 4; i++) EXPECT_EQ(list.add(&payloads[i], keys[i]), 0);
  void* const order[] = {&payloads[1], &payloads[3], &payloads[2], &payloads[0]};
  for (void* expected : order) EXPECT_EQ(list.front(), expected);
  EXPECT_EQ(list.front(), nullptr);
  EXPECT_EQ(list.popped_front(), 4U);
  EXPECT_EQ(list.add(&payloads[4], 1), -1) << "removed links stay taken until the reset";
  list.reset();
  EXPECT_EQ(list.add(&payloads[4], 1), 0);
  sortedlist_c without_pool(0, nullptr, nullptr);
  EXPECT_EQ(without_pool.add(&payloads[0], 1), -1);
}

TEST_F(SortedList, FindsTheLinkAroundAPayload) {
  sortedlist_c list(0, nullptr, nullptr);
  linklist_link_s links[3] = {};
  for (int i = 0; i < 3; i++) {
    links[i].data = &links[i];
    EXPECT_EQ(list.add_using_data(reinterpret_cast<char*>(&links[i]) + 16, float(3 - i)), 0);
  }
  EXPECT_EQ(list.peek_front(), &links[2]);
  EXPECT_EQ(list.peek_back(), &links[0]);
  EXPECT_TRUE(logged("): offset 16\n"));
}

int g_visits_left = 0;
std::vector<int> g_visited;

TEST_F(SortedList, IterationStopsAtTheFirstNegativeAnswer) {
  sortedlist_c list(8, nullptr, nullptr);
  int payloads[5] = {0, 1, 2, 3, 4};
  for (int& payload : payloads) list.add(&payload, static_cast<float>(payload));
  const auto visit = [](void* data) {
    g_visited.push_back(*static_cast<int*>(data));
    return --g_visits_left > 0 ? 0 : -1;
  };
  g_visits_left = 3;
  list.iterate(visit);
  g_visits_left = 2;
  list.iterate_back(visit);
  g_visits_left = 9;
  list.trim(0);
  list.iterate(visit);
  EXPECT_EQ(g_visited, (std::vector<int>{0, 1, 2, 4, 3}));
  EXPECT_EQ(list.popped_back(), static_cast<std::uint32_t>(-5));
}

// An owner that changes keys under the list gets a wrong order and a line, but a list that is still
// whole.
TEST_F(SortedList, StaysWholeWhenKeysAreChangedUnderIt) {
  std::mt19937 random(5);
  std::vector<linklist_link_s> links(600);
  sortedlist_c list(0, nullptr, nullptr);
  for (std::size_t i = 0; i < links.size(); i++) {
    list.add(&links[i], static_cast<float>(random() % 1000));
    if (i > 20) links[random() % i].key = static_cast<float>(random() % 1000);
    if (i % 5 == 0) list.back();
    if (i % 11 == 0) list.front();
  }
  EXPECT_TRUE(logged("*** BUG *** current val > val: "));
  int linked = 0;
  for (const linklist_link_s* link = list.get_head(); link != nullptr; link = link->next) {
    ASSERT_EQ(link->next == nullptr, link == list.get_tail());
    linked++;
  }
  EXPECT_EQ(linked, list.size());
  while (list.size() > 0) list.back();
  EXPECT_EQ(list.get_head(), nullptr);
}

}  // namespace
}  // namespace korvex
