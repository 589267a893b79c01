#include "cli/index_trial.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include "math/topology.h"
#include "runtime/platform/clock.h"

namespace korvex::cli {

void add_trial_input(CLI::App& command, trial_options& options) {
  add_place_options(command, options.place);
  command
      .add_option("queries", options.queries.path, "Query vectors, in any format of korvex build")
      ->required()
      ->type_name("FILE");
}

void add_trial_options(CLI::App& command, trial_options& options) {
  command.add_option("-k,--k", options.k, "Neighbours of each query")
      ->check(CLI::Range(1, 1 << 20));
  command.add_option("--query-rows", options.query_rows,
                     "Ask N of the queries, chosen at random by --seed (0: all)");
  command.add_option("--threads", options.threads, "Threads that search (0: one a core)")
      ->check(CLI::Range(0, 1024));
  command.add_option("--seed", options.seed, "Seed of every random choice");
  command.add_flag("--json", options.json, "Print JSON in place of text");
  add_console_options(command, options.console);
}

index_trial::index_trial(const trial_options& given) : options(given) {
  start_console(options.console);
  if (options.threads == 0) options.threads = cpu_count();
  index = disk_index::open(options.place, 0, false);
  queries = load_queries(options.queries, *index, options.query_rows, options.seed);
}

void index_trial::find_truth() {
  truth.emplace(*index, queries, static_cast<std::size_t>(options.k),
                static_cast<unsigned>(options.threads));
}

double index_trial::ask(int radius, std::size_t first, std::size_t last,
                        answer_rows& answers) const {
  const std::uint64_t began = platform::monotonic_ns();
  answer_queries(*index, queries.row(first), last - first, {options.k, radius, options.threads},
                 answers);
  const double seconds = static_cast<double>(platform::monotonic_ns() - began) / 1e9;
  stop_if_interrupted();
  return static_cast<double>(last - first) / seconds;
}

}  // namespace korvex::cli
