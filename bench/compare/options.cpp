#include "options.h"

#include <fmt/core.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <stdexcept>

#include "cli/readers/vector_file.h"

namespace korvex::compare {

namespace {

CLI::Range whole(std::int64_t least, std::int64_t most) {
  return {least, most};
}

constexpr std::int64_t most_vectors = cli::most_rows;
constexpr std::int64_t most_dimensions = cli::largest_dimension;
// With one link a vector the other libraries draw layers without end.
constexpr int least_links = 2;

void add_file_options(CLI::App& app, options& o) {
  app.add_option("--data", o.data,
                 "fashion, clustered (1,000,000 x 128), unit (100,000 x 768, length 1), or a file "
                 "of a format that the tool reads; of HDF5 files train and test")
      ->capture_default_str();
  app.add_option(
      "--queries-file", o.queries_file,
      "queries of a data file; without it the last rows are taken, a tenth of a small file");
  app.add_option("--format", o.format, "of files whose names do not tell it")
      ->check(CLI::IsMember(cli::format_names()))
      ->capture_default_str();
  app.add_option("--fashion-directory", o.fashion_directory, "where the pictures are")
      ->capture_default_str();
  app.add_option("--points", o.n_points, "vectors at most, 0: as the data has")
      ->check(whole(0, most_vectors));
  app.add_option("--queries", o.n_queries, "queries at most")
      ->capture_default_str()
      ->check(whole(1, most_vectors));
  app.add_flag("--unit", o.unit, "scale vectors and queries to length 1: for angular data");
  app.add_option("--truth-cache", o.truth_cache,
                 "file that keeps the exact answers from run to run");
}

void add_making_options(CLI::App& app, options& o) {
  app.add_option("--dimension", o.dimension, "of made data, 0: as the data has")
      ->check(whole(0, most_dimensions));
  app.add_option("--clusters", o.clusters, "of made data, 0: as the data has")
      ->check(whole(0, most_vectors));
  app.add_option("--latent", o.latent, "free dimensions of made data, 0: as the data has")
      ->check(whole(0, most_dimensions));
  app.add_option(
         "--spread", o.spread,
         "standard deviation of cluster centres, that of points being 1; 0: as the data has")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--noise", o.noise,
                 "standard deviation of noise in every dimension, below 0: as the data has");
  app.add_option("--seed", o.seed, "of made data")->capture_default_str();
}

void add_measuring_options(CLI::App& app, options& o) {
  app.add_option("--threads", o.search_threads,
                 "thread counts to search with; libraries that settle theirs once use the first")
      ->delimiter(',')
      ->capture_default_str()
      ->check(whole(1, 1024));
  app.add_option("--build-threads", o.build_threads,
                 "thread counts to build with; the index of the last one is searched")
      ->delimiter(',')
      ->capture_default_str()
      ->check(whole(1, 1024));
  app.add_option("--build-rounds", o.build_rounds, "builds of each kind")
      ->capture_default_str()
      ->check(whole(1, 1000));
  app.add_option("--rounds", o.rounds, "timed passes of all queries a level")
      ->capture_default_str()
      ->check(whole(1, 1000));
  app.add_flag("--processor-time", o.processor_time,
               "measure processor time of all threads instead of time gone by, but for the time of "
               "single queries: for a busy machine");
}

void add_search_options(CLI::App& app, options& o) {
  app.add_option("--peers", o.peers, "libraries in the order of the report; all when not given")
      ->delimiter(',');
  app.add_option("--efforts", o.efforts, "candidates a search keeps, one level each")
      ->delimiter(',')
      ->capture_default_str()
      ->check(whole(1, 1 << 20));
  app.add_option("-k,--neighbours", o.k, "results a query")
      ->capture_default_str()
      ->check(whole(1, 1 << 20));
  app.add_option("--links", o.links, "neighbours a new vector chooses (constellation size, M)")
      ->capture_default_str()
      ->check(whole(least_links, 1024));
  app.add_option("--construction-effort", o.construction_effort,
                 "candidates while linking (radius, ef_construction)")
      ->capture_default_str()
      ->check(whole(1, 1 << 20));
}

}  // namespace

void add_options(CLI::App& app, options& o) {
  add_file_options(app, o);
  add_making_options(app, o);
  add_measuring_options(app, o);
  add_search_options(app, o);
  app.add_option(
         "--growth", o.growth,
         "in place of the comparison: distance evaluations a query at recall 0.95 for these "
         "numbers of vectors")
      ->delimiter(',')
      ->check(whole(1, most_vectors));
  app.add_option("--csv", o.csv, "file for every measured value, written anew after every round");
  app.add_option("--log", o.log, "file for the log of korvex");
}

void settle_efforts(options& o) {
  std::sort(o.efforts.begin(), o.efforts.end());
  o.efforts.erase(std::unique(o.efforts.begin(), o.efforts.end()), o.efforts.end());
  const auto first_kept = std::lower_bound(o.efforts.begin(), o.efforts.end(), o.k);
  if (first_kept == o.efforts.end())
    throw std::runtime_error(
        fmt::format("--efforts {}: all are below --neighbours {}, and every library keeps at least "
                    "as many candidates as it returns",
                    fmt::join(o.efforts, ","), o.k));
  if (first_kept != o.efforts.begin())
    fmt::print(stderr,
               "efforts {} are left out: every library keeps at least the {} candidates that it "
               "returns\n",
               fmt::join(o.efforts.begin(), first_kept, ", "), o.k);
  o.efforts.erase(o.efforts.begin(), first_kept);
}

}  // namespace korvex::compare
