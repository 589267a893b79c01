#include "report.h"

#include <fmt/core.h>
#include <fmt/ostream.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <ostream>

namespace korvex::compare {

namespace {

constexpr double wanted_recalls[] = {0.90, 0.95, 0.99, 0.995, 0.999};

std::vector<double> rates(const level& of, std::size_t n_queries) {
  std::vector<double> made;
  for (const double seconds : of.seconds) made.push_back(static_cast<double>(n_queries) / seconds);
  return made;
}

std::string with_spread(const summary& s, int digits) {
  return fmt::format("{:.{}f} ({:.{}f} - {:.{}f})", s.median, digits, s.low, digits, s.high,
                     digits);
}

void print_builds(std::ostream& out, const std::vector<peer_result>& results) {
  fmt::print(out, "\nbuild, seconds: median (lowest - highest)\n");
  for (const peer_result& result : results)
    for (const build_times& times : result.builds)
      fmt::print(out, "  {:<12} {} thread{:<2} {}\n", result.name, times.threads,
                 times.threads == 1 ? "" : "s", with_spread(summarise(times.seconds), 2));
}

void print_curve(std::ostream& out, const peer_result& result, std::size_t n_queries) {
  fmt::print(out, "\n{}, {:.0f} bytes a vector\n", result.description, result.bytes_a_vector);
  fmt::print(out, "  {:>6} {:>9} {:>12}  {}\n", "effort", "recall", "evaluations",
             "queries a second: median (lowest - highest)");
  for (const level& each : result.levels)
    fmt::print(out, "  {:>6} {:>9.4f} {:>12.0f}  {}\n", each.effort, each.recall, each.evaluations,
               with_spread(summarise(rates(each, n_queries)), 0));
}

std::string outside(const peer_result& result, double recall) {
  if (result.levels.empty()) return result.name + " has no curve";
  const auto by_recall = [](const level& a, const level& b) { return a.recall < b.recall; };
  const auto [low, high] =
      std::minmax_element(result.levels.begin(), result.levels.end(), by_recall);
  if (recall < low->recall)
    return fmt::format("{} never goes below {:.4f}", result.name, low->recall);
  return fmt::format("{} never goes above {:.4f}", result.name, high->recall);
}

std::vector<double> all_rates_at(const plan& plan, const peer_result& result, std::size_t n_queries,
                                 double recall) {
  std::vector<double> made;
  for (int round = 0; round < plan.search_rounds; ++round)
    if (const auto rate =
            rate_at(result.levels, static_cast<std::size_t>(round), n_queries, recall))
      made.push_back(*rate);
  return made;
}

std::vector<double> ratios(const std::vector<double>& a, const std::vector<double>& b) {
  std::vector<double> made;
  for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) made.push_back(a[i] / b[i]);
  return made;
}

void print_rates(std::ostream& out, const plan& plan, const peer_result& ours,
                 const peer_result& other, std::size_t n_queries) {
  for (const double recall : wanted_recalls) {
    const auto first = all_rates_at(plan, ours, n_queries, recall);
    const auto second = all_rates_at(plan, other, n_queries, recall);
    if (first.empty() || second.empty()) {
      fmt::print(out, "  queries a second at recall {:.3f}   none: {}\n", recall,
                 outside(first.empty() ? ours : other, recall));
      continue;
    }
    fmt::print(out, "  queries a second at recall {:.3f}   {}   [{:.0f} against {:.0f}]\n", recall,
               with_spread(summarise(ratios(first, second)), 3), summarise(first).median,
               summarise(second).median);
  }
}

void print_ratios(std::ostream& out, const plan& plan, const peer_result& ours,
                  const peer_result& other, std::size_t n_queries) {
  fmt::print(out, "\n{} / {}: median of the rounds' ratios (lowest - highest)\n", ours.name,
             other.name);
  print_rates(out, plan, ours, other, n_queries);
  for (std::size_t i = 0; i < ours.builds.size(); ++i)
    fmt::print(out, "  build time, {} thread{}                {}\n", ours.builds[i].threads,
               ours.builds[i].threads == 1 ? " " : "s",
               with_spread(summarise(ratios(ours.builds[i].seconds, other.builds[i].seconds)), 3));
  fmt::print(out, "  bytes a vector                       {:.3f}\n",
             ours.bytes_a_vector / other.bytes_a_vector);
}

}  // namespace

summary summarise(std::vector<double> values) {
  if (values.empty()) return {};
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return {(values[(n - 1) / 2] + values[n / 2]) / 2, values.front(), values.back()};
}

std::optional<double> rate_at(const std::vector<level>& levels, std::size_t round,
                              std::size_t n_queries, double recall) {
  const auto rate = [&](const level& of) {
    return static_cast<double>(n_queries) / of.seconds[round];
  };
  for (std::size_t i = 0; i + 1 < levels.size(); ++i) {
    const level& low = levels[i];
    const level& high = levels[i + 1];
    if (low.recall > recall || high.recall < recall) continue;
    const double share =
        high.recall > low.recall ? (recall - low.recall) / (high.recall - low.recall) : 0.0;
    return std::exp(std::log(rate(low)) * (1 - share) + std::log(rate(high)) * share);
  }
  return std::nullopt;
}

void print_report(std::ostream& out, const plan& plan, const dataset& data,
                  const std::vector<peer_result>& results) {
  const std::size_t n_queries = data.queries.rows;
  print_builds(out, results);
  fmt::print(out, "\nrecall@{} against queries a second, 1 search thread, {} rounds", plan.k,
             plan.search_rounds);
  for (const peer_result& result : results) print_curve(out, result, n_queries);
  for (std::size_t other = 1; other < results.size(); ++other)
    print_ratios(out, plan, results[0], results[other], n_queries);
}

bool write_csv(const std::string& path, const std::vector<peer_result>& results,
               std::size_t n_queries) {
  std::ofstream file(path);
  fmt::print(file, "what,peer,threads,effort,recall,evaluations,round,value,unit\n");
  for (const peer_result& result : results) {
    fmt::print(file, "memory,{},,,,,,{:.1f},bytes a vector\n", result.name, result.bytes_a_vector);
    for (const build_times& times : result.builds)
      for (std::size_t round = 0; round < times.seconds.size(); ++round)
        fmt::print(file, "build,{},{},,,,{},{:.6f},seconds\n", result.name, times.threads, round,
                   times.seconds[round]);
    for (const level& each : result.levels) {
      const std::vector<double> values = rates(each, n_queries);
      for (std::size_t round = 0; round < values.size(); ++round)
        fmt::print(file, "search,{},1,{},{:.6f},{:.1f},{},{:.3f},queries a second\n", result.name,
                   each.effort, each.recall, each.evaluations, round, values[round]);
    }
  }
  return static_cast<bool>(file.flush());
}

}  // namespace korvex::compare
