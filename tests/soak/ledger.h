#ifndef KORVEX_TESTS_SOAK_LEDGER_H
#define KORVEX_TESTS_SOAK_LEDGER_H

#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <korvex/index.hpp>
#include <random>
#include <span>
#include <vector>

// What is known of the rows of an index while many threads use it: every answer is held against it.
namespace korvex::soak {

inline constexpr std::size_t dimension = 24;
inline constexpr id_type most_rows = 60'000;  // then a new index begins

// The rows follow from their numbers.
inline std::vector<float> row_of(id_type number) {
  constexpr std::uint32_t centres = 40;
  std::vector<float> row(dimension);
  std::mt19937 centre(number % centres);
  std::mt19937 own(number + 1);
  const auto part = [](std::mt19937* random) {
    return static_cast<float>((*random)() % 2'000) / 1'000 - 1;
  };
  for (float& value : row) value = 3 * part(&centre) + part(&own);
  return row;
}

inline std::uint64_t label_of(id_type number) {
  return number * 3ull;
}

class ledger {
 public:
  using counter = std::atomic<unsigned long long>;
  // Of a query: what was so before it began.
  using moment = std::uint64_t;

  void begin_anew(korvex::metric metric) {
    metric_ = metric;
    next = 0;
    for (auto& since : hidden_since_) since = 0;
  }

  // The first of four ids may be hidden at any time, others never.
  static bool may_be_hidden(id_type id) { return id % 4 == 0; }
  // Called once the removal has returned, and before the return to view begins.
  void note_hidden(id_type id) { hidden_since_[id / 4] = ++clock_; }
  void note_shown(id_type id) { hidden_since_[id / 4] = 0; }
  bool is_hidden(id_type id) const { return may_be_hidden(id) && hidden_since_[id / 4] != 0; }
  moment now() const { return clock_; }

  // Ascending, nothing twice, nothing that nobody was given or that was hidden before the query began, and every
  // distance that of the row.
  void check(std::span<const float> query, std::span<const hit> hits, moment begin) {
    for (std::size_t i = 0; i < hits.size(); ++i) {
      const id_type id = hits[i].id;
      expect(id < next + adders, "an id that nobody was given");
      if (id >= most_rows) return;
      expect(!hidden_before(id, begin), "a row that was hidden before the query began");
      const double exact = distance(query, row_of(id));
      expect(std::abs(exact - static_cast<double>(hits[i].distance)) <= 1e-3 + 1e-4 * exact,
             "a wrong distance");
      if (i == 0) continue;
      expect(hits[i - 1].distance <= hits[i].distance, "an order that is none");
      for (std::size_t before = 0; before < i; ++before)
        expect(hits[before].id != id, "a row twice");
    }
  }
  // A query for a row that was there before it began.
  void check_own(id_type wanted, std::span<const hit> hits, moment begin) {
    check(row_of(wanted), hits, begin);
    ++searches;
    if (may_be_hidden(wanted)) return;
    ++own_searches;
    if (!hits.empty() && hits[0].id == wanted) ++own_found;
  }

  void expect(bool right, const char* what) {
    if (right) return;
    if (++wrong < 20) std::fprintf(stderr, "wrong: %s\n", what);
  }

  double distance(std::span<const float> a, std::span<const float> b) const {
    double sum = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
      const double difference = static_cast<double>(a[i]) - static_cast<double>(b[i]);
      sum += difference * difference;
    }
    return metric_ == metric::l2 ? std::sqrt(sum) : sum;
  }

  static constexpr id_type adders = 1;  // additions that may be under way
  std::atomic<id_type> next{0};         // rows that are there
  counter added{0}, removed{0}, restored{0}, searches{0}, syncs{0}, openings{0};
  counter own_searches{0}, own_found{0};  // for rows that are never hidden
  std::atomic<int> wrong{0};

 private:
  bool hidden_before(id_type id, moment begin) const {
    if (!may_be_hidden(id)) return false;
    const std::uint64_t since = hidden_since_[id / 4];
    return since != 0 && since <= begin;
  }

  korvex::metric metric_ = metric::l2_squared;
  std::atomic<std::uint64_t> clock_{0};
  std::array<std::atomic<std::uint64_t>, most_rows / 4 + 1> hidden_since_{};  // 0: shown
};

}  // namespace korvex::soak

#endif  // KORVEX_TESTS_SOAK_LEDGER_H
