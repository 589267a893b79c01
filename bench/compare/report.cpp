#include "report.h"

#include <fmt/core.h>
#include <fmt/ostream.h>

#include <algorithm>
#include <cmath>
#include <ostream>
#include <utility>

namespace korvex::compare {

namespace {

constexpr double wanted_recalls[] = {0.90, 0.95, 0.99, 0.995, 0.999};
constexpr double table_recalls[] = {0.90, 0.95, 0.99};
constexpr double usual_recall = 0.95;

double seconds_of(const level& of, std::size_t round) {
  return of.seconds[round];
}
double tail_of(const level& of, std::size_t round) {
  return of.p99_seconds[round] / of.p50_seconds[round];
}

std::vector<double> rates(const level& of, std::size_t n_queries) {
  std::vector<double> made;
  for (const double seconds : of.seconds) made.push_back(static_cast<double>(n_queries) / seconds);
  return made;
}

std::string with_spread(const summary& s, int digits) {
  return fmt::format("{:.{}f} ({:.{}f} - {:.{}f})", s.median, digits, s.low, digits, s.high,
                     digits);
}

const char* plural(int threads) {
  return threads == 1 ? "" : "s";
}

std::string microseconds(const std::vector<double>& seconds) {
  return seconds.empty() ? "-" : fmt::format("{:.1f}", 1e6 * summarise(seconds).median);
}

// Time of one thread; several share the time of a pass.
std::string cost_of_evaluation(const level& of, int threads, std::size_t n_queries) {
  if (of.evaluations == 0) return "-";
  return fmt::format("{:.1f}", 1e9 * threads * summarise(of.seconds).median /
                                   (of.evaluations * static_cast<double>(n_queries)));
}

void print_curve(std::ostream& out, const curve& of, std::size_t n_queries) {
  fmt::print(out, "  {} search thread{}\n", of.threads, plural(of.threads));
  fmt::print(out, "  {:>6} {:>8} {:>12} {:>8} {:>8} {:>8}  {}\n", "effort", "recall", "evaluations",
             "ns each", "p50 us", "p99 us", "queries a second: median (lowest - highest)");
  for (const level& each : of.levels)
    fmt::print(out, "  {:>6} {:>8.4f} {:>12} {:>8} {:>8} {:>8}  {}\n", each.effort, each.recall,
               each.evaluations == 0 ? "-" : fmt::format("{:.0f}", each.evaluations),
               cost_of_evaluation(each, of.threads, n_queries), microseconds(each.p50_seconds),
               microseconds(each.p99_seconds), with_spread(summarise(rates(each, n_queries)), 0));
}

void print_curves(std::ostream& out, const peer_result& result, std::size_t n_queries) {
  fmt::print(out, "\n{}: {}, {} bytes a vector\n", result.name, result.description,
             result.bytes_a_vector > 0 ? fmt::format("{:.0f}", result.bytes_a_vector) : "-");
  for (const curve& each : result.curves)
    if (!each.levels.empty()) print_curve(out, each, n_queries);
}

std::string outside(const peer_result& result, const curve& of, double recall) {
  if (of.levels.empty()) return result.name + " has no curve";
  const auto by_recall = [](const level& a, const level& b) { return a.recall < b.recall; };
  const auto [low, high] = std::minmax_element(of.levels.begin(), of.levels.end(), by_recall);
  if (recall < low->recall)
    return fmt::format("{} never goes below {:.4f}", result.name, low->recall);
  return fmt::format("{} never goes above {:.4f}", result.name, high->recall);
}

// One value a round, or none at all.
std::vector<double> all_at(const curve& of, double recall, level_quantity quantity) {
  std::vector<double> made;
  if (of.levels.empty()) return made;
  for (std::size_t round = 0; round < of.levels[0].seconds.size(); ++round)
    if (const auto value = value_at(of.levels, recall, quantity, round)) made.push_back(*value);
  return made;
}

std::vector<double> ratios(const std::vector<double>& a, const std::vector<double>& b) {
  std::vector<double> made;
  for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) made.push_back(a[i] / b[i]);
  return made;
}

void print_rates(std::ostream& out, const peer_result& ours, const peer_result& other,
                 std::size_t setting, std::size_t n_queries) {
  const curve& first = ours.curves[setting];
  const curve& second = other.curves[setting];
  if (first.levels.empty() || second.levels.empty()) return;
  fmt::print(out, "  queries a second, {} search thread{}\n", first.threads, plural(first.threads));
  for (const double recall : wanted_recalls) {
    const auto our_seconds = all_at(first, recall, seconds_of);
    const auto their_seconds = all_at(second, recall, seconds_of);
    if (our_seconds.empty() || their_seconds.empty()) {
      fmt::print(
          out, "    at recall {:.3f}   none: {}\n", recall,
          our_seconds.empty() ? outside(ours, first, recall) : outside(other, second, recall));
      continue;
    }
    const auto n = static_cast<double>(n_queries);
    fmt::print(out, "    at recall {:.3f}   {}   [{:.0f} against {:.0f}]\n", recall,
               with_spread(summarise(ratios(their_seconds, our_seconds)), 3),
               n / summarise(our_seconds).median, n / summarise(their_seconds).median);
  }
}

// Nothing where one of them was not seen to grow: its memory may have been there before.
std::string ratio_of_bytes(const peer_result& ours, const peer_result& other) {
  if (!(ours.bytes_a_vector > 0 && other.bytes_a_vector > 0)) return "-";
  return fmt::format("{:.3f}", ours.bytes_a_vector / other.bytes_a_vector);
}

// At the levels that both have: the same effort need not find the same.
void print_recalls(std::ostream& out, const curve& ours, const curve& other) {
  std::vector<std::pair<double, unsigned>> differences;
  for (const level& mine : ours.levels)
    for (const level& theirs : other.levels)
      if (mine.effort == theirs.effort)
        differences.emplace_back(mine.recall - theirs.recall, mine.effort);
  if (differences.empty()) return;
  std::sort(differences.begin(), differences.end());
  const auto [low, low_effort] = differences.front();
  const auto [high, high_effort] = differences.back();
  fmt::print(out,
             "  recall at equal effort, difference: {:+.4f} in the middle, {:+.4f} at effort {} to "
             "{:+.4f} at effort {}\n",
             differences[differences.size() / 2].first, low, low_effort, high, high_effort);
}

void print_ratios(std::ostream& out, const peer_result& ours, const peer_result& other,
                  std::size_t n_queries) {
  fmt::print(out, "\n{} / {}\n", ours.name, other.name);
  for (std::size_t setting = 0; setting < ours.curves.size(); ++setting)
    print_rates(out, ours, other, setting, n_queries);
  print_recalls(out, ours.curves[0], other.curves[0]);
  for (std::size_t i = 0; i < ours.builds.size(); ++i)
    fmt::print(out, "  build time, {} thread{:<2} {}\n", ours.builds[i].threads,
               plural(ours.builds[i].threads),
               with_spread(summarise(ratios(ours.builds[i].seconds, other.builds[i].seconds)), 3));
  fmt::print(out, "  bytes a vector         {}\n", ratio_of_bytes(ours, other));
}

void print_tail(std::ostream& out, const peer_result& result) {
  for (const curve& each : result.curves) {
    if (each.levels.empty() || each.levels[0].p50_seconds.empty()) continue;
    const auto tail = all_at(each, usual_recall, tail_of);
    if (tail.empty()) continue;
    fmt::print(out, "  {:<16} {} thread{:<2} p99 / p50 {}\n", result.name, each.threads,
               plural(each.threads), with_spread(summarise(tail), 2));
  }
}

void print_scaling(std::ostream& out, const peer_result& result) {
  const std::vector<double> alone = all_at(result.curves[0], usual_recall, seconds_of);
  for (std::size_t i = 1; i < result.curves.size(); ++i) {
    const auto together = all_at(result.curves[i], usual_recall, seconds_of);
    if (alone.empty() || together.empty()) continue;
    fmt::print(out, "  {:<16} {} search threads / {}: {}\n", result.name, result.curves[i].threads,
               result.curves[0].threads, with_spread(summarise(ratios(alone, together)), 2));
  }
}

void print_cell(std::ostream& out, const curve& ours, const curve& of, double recall,
                std::size_t n_queries) {
  const auto our_seconds = all_at(ours, recall, seconds_of);
  const auto seconds = all_at(of, recall, seconds_of);
  std::string rate = "-";
  std::string ratio = "-";
  if (!seconds.empty())
    rate = fmt::format("{:.0f}", static_cast<double>(n_queries) / summarise(seconds).median);
  if (!seconds.empty() && !our_seconds.empty())
    ratio = fmt::format("{:.2f}", summarise(ratios(seconds, our_seconds)).median);
  fmt::print(out, "{:>12} {:>6}", rate, ratio);
}

void print_table(std::ostream& out, const std::vector<peer_result>& results, std::size_t setting,
                 std::size_t n_queries) {
  const curve& ours = results[0].curves[setting];
  fmt::print(out, "\nqueries a second, {} search thread{}, and {} / each\n", ours.threads,
             plural(ours.threads), results[0].name);
  fmt::print(out, "  {:<16}", "at recall");
  for (const double recall : table_recalls) fmt::print(out, "{:>12.2f}  ratio", recall);
  for (const peer_result& result : results) {
    fmt::print(out, "\n  {:<16}", result.name);
    for (const double recall : table_recalls)
      print_cell(out, ours, result.curves[setting], recall, n_queries);
  }
  fmt::print(out, "\n");
}

void print_pairs(std::ostream& out, const std::vector<peer_result>& results,
                 std::size_t n_queries) {
  if (results.size() < 2) return;
  fmt::print(out,
             "\nA ratio is the median of the rounds' ratios (lowest - highest): a round that was "
             "slow was slow for both.\nIt need not be the ratio of the medians beside it.\n");
  for (std::size_t other = 1; other < results.size(); ++other)
    print_ratios(out, results[0], results[other], n_queries);
  for (std::size_t setting = 0; setting < results[0].curves.size(); ++setting)
    print_table(out, results, setting, n_queries);
  out.flush();
}

}  // namespace

summary summarise(std::vector<double> values) {
  if (values.empty()) return {};
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return {(values[(n - 1) / 2] + values[n / 2]) / 2, values.front(), values.back()};
}

std::optional<double> value_at(const std::vector<level>& levels, double recall,
                               level_quantity quantity, std::size_t round) {
  for (std::size_t i = 0; i + 1 < levels.size(); ++i) {
    const level& low = levels[i];
    const level& high = levels[i + 1];
    if (low.recall > recall || high.recall < recall) continue;
    const double at_low = quantity(low, round);
    const double at_high = quantity(high, round);
    if (!(at_low > 0 && at_high > 0)) return std::nullopt;
    const double share =
        high.recall > low.recall ? (recall - low.recall) / (high.recall - low.recall) : 0.0;
    return std::exp(std::log(at_low) * (1 - share) + std::log(at_high) * share);
  }
  return std::nullopt;
}

void print_builds(std::ostream& out, const std::vector<peer_result>& results) {
  fmt::print(out, "\nbuild, seconds: median (lowest - highest)\n");
  for (const peer_result& result : results)
    for (const build_times& times : result.builds)
      fmt::print(out, "  {:<16} {} thread{:<2} {}\n", result.name, times.threads,
                 plural(times.threads), with_spread(summarise(times.seconds), 2));
  out.flush();
}

void print_report(std::ostream& out, const plan& plan, const dataset& data,
                  const std::vector<peer_result>& results) {
  const std::size_t n_queries = data.queries.rows;
  fmt::print(out, "\nrecall@{} against queries a second, {} rounds", plan.k, plan.search_rounds);
  for (const peer_result& result : results) print_curves(out, result, n_queries);
  out.flush();
  print_pairs(out, results, n_queries);
  fmt::print(out, "\nat recall {:.2f}: median of the rounds (lowest - highest)\n", usual_recall);
  for (const peer_result& result : results) print_tail(out, result);
  for (const peer_result& result : results) print_scaling(out, result);
  out.flush();
}

}  // namespace korvex::compare
