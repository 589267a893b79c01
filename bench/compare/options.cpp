#include "options.h"

#include <CLI/CLI.hpp>

namespace korvex::compare {

namespace {

void add_data_options(CLI::App& app, options& o) {
  app.add_option("--data", o.data,
                 "fashion, clustered (1,000,000 x 128), unit (100,000 x 768, length 1), or a file "
                 "of a format that the tool reads; of HDF5 files train and test")
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
  app.add_flag("--unit", o.unit, "scale vectors and queries to length 1: for angular data");
  app.add_option("--seed", o.seed, "of made data")->capture_default_str();
  app.add_option("--truth-cache", o.truth_cache,
                 "file that keeps the exact answers from run to run");
}

void add_measuring_options(CLI::App& app, options& o) {
  app.add_option("--peers", o.peers, "libraries in the order of the report; all when not given")
      ->delimiter(',');
  app.add_option("--threads", o.search_threads,
                 "thread counts to search with; libraries that settle theirs once use the first")
      ->delimiter(',')
      ->capture_default_str();
  app.add_option("--build-threads", o.build_threads,
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
               "measure processor time of all threads instead of time gone by, but for the time of "
               "single queries: for a busy machine");
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

dataset obtain_as_it_is(const options& o) {
  if (o.data == "fashion") return load_fashion(o.fashion_directory, o.n_points, o.n_queries);
  if (o.data == "clustered") return make_data(o, {});
  if (o.data == "unit")
    return make_data(o, {.points = 100'000, .dimension = 768, .latent = 32, .unit = true});
  return load_files(o.data, o.queries_file, o.n_points, o.n_queries);
}

}  // namespace

void add_options(CLI::App& app, options& o) {
  add_data_options(app, o);
  add_measuring_options(app, o);
  app.add_option(
         "--growth", o.growth,
         "in place of the comparison: distance evaluations a query at recall 0.95 for these "
         "numbers of vectors")
      ->delimiter(',');
  app.add_option("--csv", o.csv, "file for every measured value");
  app.add_option("--log", o.log, "file for the log of korvex");
}

dataset obtain_data(const options& o) {
  dataset data = obtain_as_it_is(o);
  if (o.unit) {
    scale_to_unit(data.base);
    scale_to_unit(data.queries);
    data.recipe += ", scaled to length 1";
  }
  if (data.base.rows < o.k || data.queries.rows == 0)
    throw std::runtime_error("too few vectors or queries");
  return data;
}

}  // namespace korvex::compare
