// Korvex beside other libraries: the same vectors, thread counts and graph sizes, interleaved in one run. Prints both
// curves of recall against queries a second, and the ratios at equal recall.
#include <fmt/core.h>
#include <fmt/format.h>
#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <iostream>
#include <limits>
#include <thread>

#include "dataset.h"
#include "math/kernels.h"
#include "math/metrics.h"
#include "measure.h"
#include "report.h"
#include "runtime/log.h"
#include "truth.h"

namespace korvex::compare {

namespace {

constexpr std::uint64_t log_ring_bytes = 64'000;

struct options {
  std::string data = "fashion";
  std::string queries_file;
  std::string fashion_directory = "/usr/share/datasets/fashion-mnist";
  std::size_t n_points = 0;
  std::size_t n_queries = 10'000;
  std::size_t dimension = 0;
  std::size_t clusters = 0;
  std::size_t latent = 0;
  double spread = 0;
  double noise = -1;
  std::uint64_t seed = 1;
  std::vector<std::string> peers;
  std::vector<int> build_threads = {1};
  int build_rounds = 1;
  int rounds = 3;
  std::vector<unsigned> efforts = {10,  14,  20,  28,  36,  48,  64, 86,
                                   115, 154, 205, 274, 365, 487, 650};
  unsigned k = 10;
  int links = 16;
  int construction_effort = 200;
  bool processor_time = false;
  std::string truth_cache;
  std::string csv;
  std::string log;
};

void add_data_options(CLI::App& app, options& o) {
  app.add_option("--data", o.data,
                 "fashion, clustered (1,000,000 x 128), unit (100,000 x 768, length 1), or an "
                 ".fvecs or .npy file")
      ->capture_default_str();
  app.add_option("--queries-file", o.queries_file,
                 "queries of a data file; without it the last rows are taken");
  app.add_option("--fashion-directory", o.fashion_directory, "where the pictures are")
      ->capture_default_str();
  app.add_option("--points", o.n_points, "vectors at most, 0: as the data has");
  app.add_option("--queries", o.n_queries, "queries at most")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_option("--dimension", o.dimension, "of made data, 0: as the data has");
  app.add_option("--clusters", o.clusters, "of made data, 0: as the data has");
  app.add_option("--latent", o.latent, "free dimensions of made data, 0: as the data has");
  app.add_option(
      "--spread", o.spread,
      "standard deviation of cluster centres, that of points being 1; 0: as the data has");
  app.add_option("--noise", o.noise,
                 "standard deviation of noise in every dimension, below 0: as the data has");
  app.add_option("--seed", o.seed, "of made data")->capture_default_str();
  app.add_option("--truth-cache", o.truth_cache,
                 "file that keeps the exact answers from run to run");
}

void add_measuring_options(CLI::App& app, options& o) {
  app.add_option("--peers", o.peers, "libraries in the order of the report; all when not given")
      ->delimiter(',');
  app.add_option("--threads", o.build_threads,
                 "thread counts to build with; the index of the last one is searched")
      ->delimiter(',')
      ->capture_default_str();
  app.add_option("--build-rounds", o.build_rounds, "builds of each kind")->capture_default_str();
  app.add_option("--rounds", o.rounds, "timed passes of all queries a level")
      ->capture_default_str();
  app.add_option("--efforts", o.efforts, "candidates a search keeps, one level each")
      ->delimiter(',')
      ->capture_default_str();
  app.add_option("-k,--neighbours", o.k, "results a query")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_option("--links", o.links, "neighbours a new vector chooses (constellation size, M)")
      ->capture_default_str();
  app.add_option("--construction-effort", o.construction_effort,
                 "candidates while linking (radius, ef_construction)")
      ->capture_default_str();
  app.add_flag("--processor-time", o.processor_time,
               "measure processor time of all threads instead of time gone by: for a busy machine");
  app.add_option("--csv", o.csv, "file for every measured value");
  app.add_option("--log", o.log, "file for the log of korvex");
}

template <class T>
void replace(T& value, T wanted, T unset) {
  if (wanted != unset) value = wanted;
}

dataset make_data(const options& o, mixture recipe) {
  replace(recipe.points, o.n_points, std::size_t{0});
  replace(recipe.dimension, o.dimension, std::size_t{0});
  replace(recipe.clusters, o.clusters, std::size_t{0});
  replace(recipe.latent, o.latent, std::size_t{0});
  replace(recipe.spread, o.spread, 0.0);
  if (o.noise >= 0) recipe.noise = o.noise;
  recipe.seed = o.seed;
  return make_mixture(recipe, o.n_queries);
}

dataset obtain_data(const options& o) {
  const std::size_t most = o.n_points == 0 ? std::numeric_limits<std::size_t>::max() : o.n_points;
  if (o.data == "fashion") return load_fashion(o.fashion_directory, most, o.n_queries);
  if (o.data == "clustered") return make_data(o, {});
  if (o.data == "unit")
    return make_data(o, {.points = 100'000, .dimension = 768, .latent = 32, .unit = true});
  return load_files(o.data, o.queries_file, most, o.n_queries);
}

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
  fmt::print("threads          building {}, searching 1\n", fmt::join(o.build_threads, ", "));
  fmt::print("clock            {}\n",
             o.processor_time ? "processor time of all threads" : "time gone by");
}

plan make_plan(const options& o, const dataset& data) {
  plan made;
  made.peers = choose_peers(o.peers);
  made.settings = {data.base.dimension, data.base.rows, o.links, o.construction_effort};
  made.build_threads = o.build_threads;
  made.build_rounds = o.build_rounds;
  made.search_rounds = o.rounds;
  made.efforts = o.efforts;
  std::sort(made.efforts.begin(), made.efforts.end());
  made.k = o.k;
  made.processor_time = o.processor_time;
  return made;
}

int run(const options& o) {
  log_init(log_ring_bytes, 0);
  log_setfd(0);  // standard output is the report's
  if (!o.log.empty()) log_setpath(o.log.c_str());
  distance_init();
  const dataset data = obtain_data(o);
  if (data.base.rows < o.k || data.queries.rows == 0)
    throw std::runtime_error("too few vectors or queries");
  print_heading(o, data);
  const exact_truth truth = find_truth(data, o.k, o.truth_cache);
  const plan wanted = make_plan(o, data);
  const std::vector<peer_result> results = measure(wanted, data, truth);
  print_report(std::cout, wanted, data, results);
  fmt::print("\nload {} after\n", load_average());
  if (o.csv.empty() || write_csv(o.csv, results, data.queries.rows)) return 0;
  fmt::print(stderr, "{} cannot be written\n", o.csv);
  return 1;
}

}  // namespace

}  // namespace korvex::compare

int main(int argc, char** argv) {
  CLI::App app("korvex_compare: Korvex beside other libraries on the same data");
  korvex::compare::options options;
  korvex::compare::add_data_options(app, options);
  korvex::compare::add_measuring_options(app, options);
  CLI11_PARSE(app, argc, argv);
  try {
    return korvex::compare::run(options);
  } catch (const std::exception& error) {
    fmt::print(stderr, "korvex_compare: {}\n", error.what());
    return 1;
  }
}
