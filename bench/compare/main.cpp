// Korvex beside other libraries: the same vectors, thread counts and graph sizes, interleaved in one run. Prints both
// curves of recall against queries a second, and the ratios at equal recall.
#include <fmt/core.h>
#include <fmt/ostream.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <exception>
#include <iostream>
#include <new>
#include <stdexcept>

#include "cli/console.h"
#include "dataset.h"
#include "heading.h"
#include "math/kernels.h"
#include "math/metrics.h"
#include "measure.h"
#include "obtain.h"
#include "options.h"
#include "report.h"
#include "runtime/log.h"
#include "truth.h"

namespace korvex::compare {

namespace {

constexpr std::uint64_t log_ring_bytes = 64'000;

[[noreturn]] void refuse_peer(const std::string& name) {
  std::string known;
  for (const peer& each : peers()) known += std::string(" ") + each.name;
  throw std::runtime_error("--peers: no library is called '" + name + "', known are" + known);
}

std::vector<const peer*> choose_peers(const options& o) {
  std::vector<const peer*> chosen;
  for (const peer& each : peers())
    if (o.peers.empty()) chosen.push_back(&each);
  for (const std::string& name : o.peers) {
    chosen.push_back(find_peer(name));
    if (chosen.back() == nullptr) refuse_peer(name);
  }
  std::erase_if(chosen, [](const peer* each) {
    if (each->make == nullptr) fmt::print(stderr, "{} is left out: {}\n", each->name, each->absent);
    return each->make == nullptr;
  });
  if (chosen.empty()) throw std::runtime_error("no library is left to measure");
  return chosen;
}

plan make_plan(const options& o, const std::vector<const peer*>& chosen, const dataset& data) {
  plan made;
  made.peers = chosen;
  made.settings = {data.base.dimension, data.base.rows, o.links, o.construction_effort};
  made.settings.search_threads = o.search_threads.at(0);
  made.build_threads = o.build_threads;
  made.search_threads = o.search_threads;
  made.build_rounds = o.build_rounds;
  made.search_rounds = o.rounds;
  made.efforts = o.efforts;
  made.k = o.k;
  made.processor_time = o.processor_time;
  return made;
}

// A run takes hours and may be ended before its time: what is known by then is kept.
class keeper {
 public:
  // Throws std::runtime_error when the file for the values cannot be written.
  explicit keeper(const options& o) : options_(o) {
    write({}, 0);
    if (!written_) throw std::runtime_error(o.csv + " cannot be written");
  }

  void keep(phase of, int round, const std::vector<peer_result>& results, std::size_t n_queries) {
    const int rounds = of == phase::building ? options_.build_rounds : options_.rounds;
    const std::chrono::duration<double> gone = std::chrono::steady_clock::now() - began_;
    fmt::print(stderr, "{} round {} of {} is done, {} since the start\n",
               of == phase::building ? "build" : "search", round, rounds,
               cli::duration_text(gone.count()));
    write(results, n_queries);
    if (of == phase::building && round == rounds) print_builds(std::cout, results);
  }

  // Whether the last write succeeded; a line on standard error when it did not.
  bool told_all() const {
    if (!written_) fmt::print(stderr, "{} cannot be written\n", options_.csv);
    return written_;
  }

 private:
  void write(const std::vector<peer_result>& results, std::size_t n_queries) {
    written_ =
        options_.csv.empty() || write_csv(options_.csv, name_of_data(options_), results, n_queries);
  }

  const options& options_;
  const std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
  bool written_ = false;
};

int compare(const options& o) {
  const std::vector<const peer*> chosen = choose_peers(o);
  warn_of_memory(o, chosen.size());
  keeper kept(o);
  const dataset data = obtain_data(o);
  print_heading(std::cout, o, data);
  std::cout.flush();
  warn_of_distance(o, data);
  const exact_truth truth = find_truth(data, o.k, o.truth_cache);
  plan wanted = make_plan(o, chosen, data);
  wanted.after_round = [&](phase of, int round, const std::vector<peer_result>& results) {
    kept.keep(of, round, results, data.queries.rows);
  };
  print_report(std::cout, wanted, data, measure(wanted, data, truth));
  fmt::print(std::cout, "\nload {} after\n", load_average());
  return kept.told_all() ? 0 : 1;
}

bool counts(const curve& of) {
  return std::all_of(of.levels.begin(), of.levels.end(),
                     [](const level& each) { return each.evaluations > 0; });
}

// One line a library that counts: evaluations where its curve reaches the recall, and what that is for each doubling
// of the vectors, which stays the same when cost grows with the logarithm.
void print_evaluations(const options& o, const std::vector<const peer*>& chosen) {
  constexpr double recall = 0.95;
  const dataset data = obtain_data(o);
  const plan wanted = make_plan(o, chosen, data);
  const exact_truth truth = find_truth(data, o.k, "");
  for (const peer_result& result : measure(wanted, data, truth)) {
    const curve& of = result.curves[0];
    const auto count =
        value_at(of.levels, recall, [](const level& at, std::size_t) { return at.evaluations; });
    fmt::print(std::cout, "{:>10} {:<16} ", data.base.rows, result.name);
    if (count)
      fmt::print(std::cout, "{:>8.0f} {:>14.1f}\n", *count,
                 *count / std::log2(static_cast<double>(data.base.rows)));
    else if (counts(of))
      fmt::print(std::cout, "recall {:.2f} lies outside of the levels\n", recall);
    else
      fmt::print(std::cout, "counted no evaluations\n");
  }
  std::cout.flush();
}

int print_growth(options o) {
  std::vector<const peer*> chosen = choose_peers(o);
  std::erase_if(chosen, [](const peer* each) {
    if (!each->counts_evaluations)
      fmt::print(stderr, "{} is left out: it counts no evaluations\n", each->name);
    return !each->counts_evaluations;
  });
  o.rounds = 1;
  o.n_points = *std::max_element(o.growth.begin(), o.growth.end());
  warn_of_memory(o, chosen.size());
  fmt::print(std::cout, "distance evaluations a query at recall@{} 0.95, data {}, links {}\n", o.k,
             o.data, o.links);
  fmt::print(std::cout, "{:>10} {:<16} {:>8} {:>14}\n", "vectors", "library", "a query",
             "a doubling");
  for (const std::size_t size : o.growth) {
    o.n_points = size;
    print_evaluations(o, chosen);
  }
  return 0;
}

int run(options& o) {
  settle_efforts(o);
  log_init(log_ring_bytes, 0);
  log_setfd(0);  // standard output is the report's
  if (!o.log.empty() && log_setpath(o.log.c_str()) == 0)
    throw std::runtime_error(o.log + " cannot be written");
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
  } catch (const std::bad_alloc&) {
    fmt::print(stderr,
               "korvex_compare: not enough memory; --peers names fewer libraries, --points fewer "
               "vectors\n");
    return 1;
  } catch (const std::exception& error) {
    fmt::print(stderr, "korvex_compare: {}\n", error.what());
    return 1;
  }
}
