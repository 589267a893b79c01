// Korvex beside other libraries: the same vectors, thread counts and graph sizes, interleaved in one run. Prints both
// curves of recall against queries a second, and the ratios at equal recall.
#include <fmt/core.h>
#include <fmt/format.h>
#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <exception>
#include <iostream>
#include <thread>

#include "dataset.h"
#include "math/kernels.h"
#include "math/metrics.h"
#include "measure.h"
#include "options.h"
#include "report.h"
#include "runtime/log.h"
#include "truth.h"

namespace korvex::compare {

namespace {

constexpr std::uint64_t log_ring_bytes = 64'000;

std::vector<const peer*> choose_peers(const std::vector<std::string>& names) {
  std::vector<const peer*> chosen;
  for (const peer& each : peers())
    if (names.empty()) chosen.push_back(&each);
  for (const std::string& name : names) {
    chosen.push_back(find_peer(name));
    if (chosen.back() == nullptr) throw std::runtime_error("no peer is called " + name);
  }
  std::erase_if(chosen, [](const peer* each) {
    if (each->make == nullptr) fmt::print(stderr, "{} is left out: {}\n", each->name, each->absent);
    return each->make == nullptr;
  });
  return chosen;
}

std::string load_average() {
  double load[1];
  return getloadavg(load, 1) == 1 ? fmt::format("{:.2f}", load[0]) : "unknown";
}

void print_heading(const options& o, const dataset& data) {
  const cpu_features features = detect_cpu_features();
  fmt::print("data             {}, {} x {}, {} queries\n", data.recipe, data.base.rows,
             data.base.dimension, data.queries.rows);
  fmt::print("machine          {}, {} processors, load {} before\n", features.brand,
             std::thread::hardware_concurrency(), load_average());
  fmt::print("instruction set  {}\n", chosen_kernels());
  fmt::print("threads          building {}, searching {}\n", fmt::join(o.build_threads, ", "),
             fmt::join(o.search_threads, ", "));
  fmt::print("clock            {}\n",
             o.processor_time ? "processor time of all threads" : "time gone by");
}

plan make_plan(const options& o, const dataset& data) {
  plan made;
  made.peers = choose_peers(o.peers);
  made.settings = {data.base.dimension, data.base.rows, o.links, o.construction_effort};
  made.settings.search_threads = o.search_threads.at(0);
  made.build_threads = o.build_threads;
  made.search_threads = o.search_threads;
  made.build_rounds = o.build_rounds;
  made.search_rounds = o.rounds;
  made.efforts = o.efforts;
  std::sort(made.efforts.begin(), made.efforts.end());
  made.k = o.k;
  made.processor_time = o.processor_time;
  return made;
}

int compare(const options& o) {
  const dataset data = obtain_data(o);
  print_heading(o, data);
  const exact_truth truth = find_truth(data, o.k, o.truth_cache);
  const plan wanted = make_plan(o, data);
  const std::vector<peer_result> results = measure(wanted, data, truth);
  print_report(std::cout, wanted, data, results);
  fmt::print("\nload {} after\n", load_average());
  if (o.csv.empty() || write_csv(o.csv, o.data, results, data.queries.rows)) return 0;
  fmt::print(stderr, "{} cannot be written\n", o.csv);
  return 1;
}

// One line a library that counts: evaluations where its curve reaches the recall, and what that is for each doubling
// of the vectors, which stays the same when cost grows with the logarithm.
void print_evaluations(const options& o) {
  constexpr double recall = 0.95;
  const dataset data = obtain_data(o);
  plan wanted = make_plan(o, data);
  std::erase_if(wanted.peers, [](const peer* each) { return !each->counts_evaluations; });
  const exact_truth truth = find_truth(data, o.k, "");
  for (const peer_result& result : measure(wanted, data, truth)) {
    const auto count = value_at(result.curves[0].levels, recall,
                                [](const level& of, std::size_t) { return of.evaluations; });
    if (count)
      fmt::print("{:>10} {:<16} {:>8.0f} {:>14.1f}\n", data.base.rows, result.name, *count,
                 *count / std::log2(static_cast<double>(data.base.rows)));
    else
      fmt::print("{:>10} {:<16} recall {:.2f} lies outside of the levels\n", data.base.rows,
                 result.name, recall);
  }
}

int print_growth(options o) {
  fmt::print("distance evaluations a query at recall@{} 0.95, data {}, links {}\n", o.k, o.data,
             o.links);
  fmt::print("{:>10} {:<16} {:>8} {:>14}\n", "vectors", "library", "a query", "a doubling");
  o.rounds = 1;
  for (const std::size_t size : o.growth) {
    o.n_points = size;
    print_evaluations(o);
  }
  return 0;
}

int run(const options& o) {
  log_init(log_ring_bytes, 0);
  log_setfd(0);  // standard output is the report's
  if (!o.log.empty()) log_setpath(o.log.c_str());
  distance_init();
  return o.growth.empty() ? compare(o) : print_growth(o);
}

}  // namespace

}  // namespace korvex::compare

int main(int argc, char** argv) {
  CLI::App app("korvex_compare: Korvex beside other libraries on the same data");
  korvex::compare::options options;
  korvex::compare::add_options(app, options);
  CLI11_PARSE(app, argc, argv);
  try {
    return korvex::compare::run(options);
  } catch (const std::exception& error) {
    fmt::print(stderr, "korvex_compare: {}\n", error.what());
    return 1;
  }
}
