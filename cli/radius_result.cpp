#include "cli/radius_result.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <numeric>

#include "cli/format.h"

namespace korvex::cli {

double radius_result::median_rate() const {
  std::vector<double> sorted = queries_per_second;
  std::sort(sorted.begin(), sorted.end());
  const std::size_t n = sorted.size();
  if (n == 0) return 0;
  return n % 2 == 1 ? sorted[n / 2] : (sorted[n / 2 - 1] + sorted[n / 2]) / 2;
}

double radius_result::mean_latency() const {
  const double sum = std::accumulate(latencies.begin(), latencies.end(), 0.0);
  return latencies.empty() ? 0 : sum / static_cast<double>(latencies.size());
}

double radius_result::latency_quantile(double share) const {
  if (latencies.empty()) return 0;
  const auto rank =
      static_cast<std::size_t>(std::ceil(share * static_cast<double>(latencies.size())));
  return latencies[std::clamp<std::size_t>(rank, 1, latencies.size()) - 1];
}

std::string results_table(const std::vector<radius_result>& results, int k, bool recall) {
  const std::string name = recall ? fmt::format(" {:>11}", fmt::format("recall@{}", k)) : "";
  std::string text = fmt::format("{:>8}{} {:>12} {:>10} {:>10} {:>10}\n", "radius", name,
                                 "queries/s", "mean ms", "p50 ms", "p99 ms");
  for (const radius_result& at : results) {
    const auto rate = static_cast<std::uint64_t>(std::llround(std::max(at.median_rate(), 0.0)));
    text += fmt::format("{:>8}{} {:>12} {:>10.3f} {:>10.3f} {:>10.3f}\n", at.radius,
                        recall ? fmt::format(" {:>11.4f}", at.recall) : "", grouped(rate),
                        1e3 * at.mean_latency(), 1e3 * at.latency_quantile(0.50),
                        1e3 * at.latency_quantile(0.99));
  }
  return text;
}

nlohmann::ordered_json result_json(const radius_result& at) {
  return {{"radius", at.radius},
          {"recall", at.recall},
          {"queries_per_second", at.median_rate()},
          {"queries_per_second_by_round", at.queries_per_second},
          {"latency_mean_ms", 1e3 * at.mean_latency()},
          {"latency_p50_ms", 1e3 * at.latency_quantile(0.50)},
          {"latency_p99_ms", 1e3 * at.latency_quantile(0.99)}};
}

}  // namespace korvex::cli
