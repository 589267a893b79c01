#include "cli/eval_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>

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
  for (const radius_result& at : report.results) {
    rows.push_back(result_json(at));
    rows.back()["session_recall"] = at.session_recall;
  }
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
  text += "\n" + results_table(report.results, report.k, true);
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
