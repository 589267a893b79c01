#include "cli/eval_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <numeric>

#include "cli/format.h"

namespace korvex::cli {

namespace {

using json = nlohmann::ordered_json;

std::string file_name(const std::string& path) {
  return std::filesystem::path(path).filename().string();
}

std::uint64_t whole(double value) {
  return static_cast<std::uint64_t>(std::llround(std::max(value, 0.0)));
}

std::string count(int n, const char* what) {
  return fmt::format("{} {}{}", n, what, n == 1 ? "" : "s");
}

json results_of(const eval_report& report) {
  json rows = json::array();
  for (const radius_result& at : report.results)
    rows.push_back({{"radius", at.radius},
                    {"recall", at.recall},
                    {"session_recall", at.session_recall},
                    {"queries_per_second", at.median_rate()},
                    {"queries_per_second_by_round", at.queries_per_second},
                    {"latency_mean_ms", 1e3 * at.mean_latency()},
                    {"latency_p50_ms", 1e3 * at.latency_quantile(0.50)},
                    {"latency_p99_ms", 1e3 * at.latency_quantile(0.99)}});
  return rows;
}

json samples_of(const eval_report& report) {
  json samples = json::array();
  for (const sample& each : report.samples) {
    json neighbours = json::array();
    for (const sample_neighbour& near : each.neighbours)
      neighbours.push_back({{"row", near.row}, {"distance", near.distance}, {"exact", near.exact}});
    samples.push_back({{"query_row", each.query_row}, {"neighbours", neighbours}});
  }
  return samples;
}

}  // namespace

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

std::string as_table(const eval_report& report) {
  std::string text;
  const auto line = [&](const char* label, const std::string& value) {
    text += fmt::format("{:<8} {}\n", label, value);
  };
  line("base", fmt::format("{}: {} vectors of {} dimensions", file_name(report.base_file),
                           grouped(report.base_rows), report.dimension));
  line("queries",
       fmt::format("{}: {} vectors", file_name(report.query_file), grouped(report.query_rows)));
  if (report.scale_length > 0)
    line("scaled", fmt::format("every vector to length {}", report.scale_length));
  line("truth", report.truth_file.empty()
                    ? fmt::format("exact, by brute force in {:.1f} s", report.truth_seconds)
                    : file_name(report.truth_file));
  line("index", fmt::format("metric {}, constellation {}, index radius {}, {}, kernels {}",
                            report.metric, report.constellation, report.index_radius,
                            count(report.probes, "pattern probe"), report.kernels));
  line("build",
       fmt::format("{:.2f} s by {}, {} vectors/s", report.build_seconds,
                   count(report.index_threads, "indexing thread"),
                   grouped(whole(static_cast<double>(report.base_rows) / report.build_seconds))));
  line("memory",
       fmt::format("{} bytes a vector, resident", grouped(whole(report.bytes_per_vector))));
  line("search",
       fmt::format("{}, result cache {}, {}", count(report.search_threads, "search thread"),
                   report.result_cache, count(report.rounds, "round")));
  text +=
      fmt::format("\n{:>8} {:>11} {:>12} {:>10} {:>10} {:>10}\n", "radius",
                  fmt::format("recall@{}", report.k), "queries/s", "mean ms", "p50 ms", "p99 ms");
  for (const radius_result& at : report.results)
    text += fmt::format("{:>8} {:>11.4f} {:>12} {:>10.3f} {:>10.3f} {:>10.3f}\n", at.radius,
                        at.recall, grouped(whole(at.median_rate())), 1e3 * at.mean_latency(),
                        1e3 * at.latency_quantile(0.50), 1e3 * at.latency_quantile(0.99));
  text +=
      "\nrecall and queries/s: one bulk query of all queries (median of the rounds)\n"
      "mean, p50, p99: one session that asks one query at a time (all rounds)\n";
  return text;
}

std::string as_json(const eval_report& report) {
  json document = {{"base", {{"file", report.base_file}, {"vectors", report.base_rows}}},
                   {"queries", {{"file", report.query_file}, {"vectors", report.query_rows}}},
                   {"truth", {{"file", nullptr}, {"seconds", report.truth_seconds}}},
                   {"dimension", report.dimension},
                   {"scale_length", nullptr},
                   {"seed", report.seed},
                   {"metric", report.metric},
                   {"constellation", report.constellation},
                   {"index_radius", report.index_radius},
                   {"pattern_probes", report.probes},
                   {"indexing_threads", report.index_threads},
                   {"search_threads", report.search_threads},
                   {"result_cache", report.result_cache},
                   {"kernels", report.kernels},
                   {"k", report.k},
                   {"rounds", report.rounds},
                   {"build_seconds", report.build_seconds},
                   {"bytes_per_vector", report.bytes_per_vector},
                   {"results", results_of(report)}};
  if (!report.truth_file.empty()) document["truth"]["file"] = report.truth_file;
  if (report.scale_length > 0) document["scale_length"] = report.scale_length;
  if (!report.samples.empty())
    document["samples"] = {{"radius", report.sample_radius}, {"queries", samples_of(report)}};
  return document.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace korvex::cli
