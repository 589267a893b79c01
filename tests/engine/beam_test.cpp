#include "engine/beam.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <tuple>
#include <vector>

namespace korvex {
namespace {

// Every size up to beyond the one from which the search halves, in arrays that are new and in used ones, with keys that
// repeat and keys that end the range.
TEST(WalkBeam, KeepsTheOrderOfAPlainList) {
  std::mt19937 random(1);
  walk_beam beam;
  for (const std::uint32_t room : {1u, 15u, 16u, 17u, 33u, 128u, 129u, 200u, 700u, 129u, 32u, 3u}) {
    ASSERT_TRUE(beam.reset(room));
    ASSERT_GE(beam.capacity(), room);
    std::vector<walk_beam::entry> plain;
    for (std::uint32_t id = 1; id < 6 * room + 40; ++id) {
      float key = static_cast<float>(random() % (2 * room)) - static_cast<float>(room);
      if (random() % 20 == 0) key = std::numeric_limits<float>::max();
      if (random() % 20 == 0) key = std::numeric_limits<float>::infinity();
      const auto hops = static_cast<std::uint16_t>(id % 50);
      const bool fits = plain.size() < beam.capacity();
      if (fits && id % 7 == 0 && (plain.empty() || !(key < plain.back().key))) {
        ASSERT_TRUE(beam.append({key, id, hops, 0}));
        plain.push_back({key, id, hops, 0});
      } else {
        ASSERT_EQ(beam.insert(key, id, hops), fits);
      }
      if (beam.size() != plain.size()) {
        auto place = plain.begin();
        while (place != plain.end() && place->key < key) ++place;
        plain.insert(place, {key, id, hops, 0});
      }
      if (random() % 3 == 0) {
        std::uint32_t first = 0;
        while (first < plain.size() && plain[first].marks != 0) ++first;
        ASSERT_EQ(beam.first_unexpanded(), first);
        const std::uint32_t chosen = static_cast<std::uint32_t>(random() % plain.size());
        beam.set_expanded(chosen);
        plain[chosen].marks = walk_beam::expanded;
      }
      for (auto drop = random() % (plain.size() >= room ? 20u : 2u); drop > 0 && plain.size() > 1;
           --drop) {
        ASSERT_EQ(beam.back().id, plain.back().id);
        beam.pop_back();
        plain.pop_back();
      }
      ASSERT_EQ(beam.size(), plain.size());
      for (std::uint32_t i = 0; i < beam.size(); ++i) {
        const walk_beam::entry got = beam[i];
        ASSERT_EQ(std::tie(got.key, got.id, got.hops, got.marks),
                  std::tie(plain[i].key, plain[i].id, plain[i].hops, plain[i].marks));
      }
    }
  }
}

}  // namespace
}  // namespace korvex
