#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>

#include "cli/console.h"
#include "cli/disk_index.h"
#include "cli/errors.h"
#include "cli/format.h"
#include "cli/index_truth.h"
#include "cli/interrupt.h"
#include "cli/query_batch.h"
#include "cli/verb.h"
#include "math/topology.h"
#include "runtime/platform/clock.h"

// korvex tune: the smallest radius for a wanted recall.
namespace korvex::cli {

namespace {

constexpr int first_radius = 16;

struct tune_choice {
  index_place place;
  vector_input queries{"", vector_format::unknown, "test"};
  double recall = 0.95;
  int k = 10, most_radius = 10'000, threads = 0;
  std::size_t query_rows = 2'000;
  std::uint64_t seed = 1;
  bool json = false;
  console_options console;
};

struct trial {
  int radius = 0;
  mean_recall recall;
  double queries_per_second = 0;
};

// Asks the queries from `first` to `last` at one radius.
class trials {
 public:
  trials(const disk_index& index, const matrix& queries, const index_truth& truth,
         const tune_choice& choice)
      : index_(index), queries_(queries), truth_(truth), choice_(choice) {}

  trial run(int radius, std::size_t first, std::size_t last) {
    const std::uint64_t began = platform::monotonic_ns();
    answer_queries(index_, queries_.row(first), last - first, {choice_.k, radius, choice_.threads},
                   answers_);
    stop_if_interrupted();
    const double seconds = static_cast<double>(platform::monotonic_ns() - began) / 1e9;
    return {radius, truth_.recall(answers_, first), static_cast<double>(last - first) / seconds};
  }

 private:
  const disk_index& index_;
  const matrix& queries_;
  const index_truth& truth_;
  const tune_choice& choice_;
  answer_rows answers_;
};

// Doubles the radius until the recall suffices, then halves the interval. Nothing when the largest
// radius does not suffice; `best` is the recall there.
std::optional<int> smallest_radius(trials& tried, std::size_t n, const tune_choice& choice,
                                   double* best) {
  const auto suffices = [&](int radius) {
    *best = tried.run(radius, 0, n).recall.mean;
    return *best >= choice.recall;
  };
  int too_small = 0;
  int enough = std::min(first_radius, choice.most_radius);
  while (!suffices(enough)) {
    if (enough == choice.most_radius) return std::nullopt;
    too_small = enough;
    enough = std::min(2 * enough, choice.most_radius);
  }
  while (enough - too_small > 1) {
    const int middle = too_small + (enough - too_small) / 2;
    (suffices(middle) ? enough : too_small) = middle;
  }
  return enough;
}

std::string report(const tune_choice& choice, const trial& tuned, const trial& held_out,
                   std::size_t n_tuned, std::size_t n_held_out) {
  if (!choice.json)
    return fmt::format(
        "radius    {}\nrecall@{:<2} {:.4f} +- {:.4f} on the {} queries that it was "
        "chosen by\nheld out  {:.4f} +- {:.4f} on {} others\nspeed     {} queries/s "
        "by {} thread{}\n",
        tuned.radius, choice.k, tuned.recall.mean, tuned.recall.uncertainty, grouped(n_tuned),
        held_out.recall.mean, held_out.recall.uncertainty, grouped(n_held_out),
        grouped(static_cast<std::uint64_t>(held_out.queries_per_second)), choice.threads,
        choice.threads == 1 ? "" : "s");
  const nlohmann::ordered_json all = {{"radius", tuned.radius},
                                      {"wanted_recall", choice.recall},
                                      {"k", choice.k},
                                      {"recall", tuned.recall.mean},
                                      {"recall_uncertainty", tuned.recall.uncertainty},
                                      {"held_out_recall", held_out.recall.mean},
                                      {"held_out_uncertainty", held_out.recall.uncertainty},
                                      {"queries", n_tuned},
                                      {"held_out_queries", n_held_out},
                                      {"queries_per_second", held_out.queries_per_second},
                                      {"threads", choice.threads}};
  return all.dump(2) + "\n";
}

void shuffle_rows(matrix& queries, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  for (std::size_t i = queries.rows; i-- > 1;) {
    const std::size_t j = random() % (i + 1);
    std::swap_ranges(queries.values.data() + i * queries.dimension,
                     queries.values.data() + (i + 1) * queries.dimension,
                     queries.values.data() + j * queries.dimension);
  }
}

void run_tune(tune_choice choice) {
  start_console(choice.console);
  const interrupt_guard guard;
  if (choice.threads == 0) choice.threads = cpu_count();
  const auto index = disk_index::open(choice.place, 0, false);
  matrix queries = load_queries(choice.queries, *index, choice.query_rows, choice.seed);
  if (queries.rows < 2)
    throw file_error(choice.queries.path, "1 query, expected 2 or more: half of them are held out");
  shuffle_rows(queries, choice.seed);
  const index_truth truth(*index, queries, static_cast<std::size_t>(choice.k),
                          static_cast<unsigned>(choice.threads));
  const std::size_t half = queries.rows / 2;
  trials tried(*index, queries, truth, choice);
  double best = 0;
  const std::optional<int> radius = smallest_radius(tried, half, choice, &best);
  if (!radius)
    throw tool_error(exit_recall, fmt::format("recall@{} is {:.4f} at the largest radius, {}; "
                                              "expected {} or more. More --probes or a larger "
                                              "--constellation in korvex build reach further",
                                              choice.k, best, choice.most_radius, choice.recall));
  const trial tuned = tried.run(*radius, 0, half);
  const trial held_out = tried.run(*radius, half, queries.rows);
  print_result(report(choice, tuned, held_out, half, queries.rows - half));
  index->close();
}

}  // namespace

verb add_tune(CLI::App& tool) {
  CLI::App* const command =
      tool.add_subcommand("tune", "Finds the smallest radius that reaches a wanted recall");
  command->footer(
      "The queries are divided at random into two halves. The radius is chosen by the first; the "
      "recall on the second, which had no part in the choice, is what other queries like these can "
      "expect. Exact answers come from a brute-force search of the index. +- is two standard "
      "errors.");
  auto choice = std::make_shared<tune_choice>();
  command->option_defaults()->always_capture_default();
  add_place_options(*command, choice->place);
  command
      ->add_option("queries", choice->queries.path, "Query vectors, in any format of korvex build")
      ->required()
      ->type_name("FILE");
  command->add_option("--recall", choice->recall, "Wanted share of the k nearest, 0 to 1")
      ->check(CLI::Range(0.0, 1.0));
  command->add_option("-k,--k", choice->k, "Neighbours of each query")
      ->check(CLI::Range(1, 1 << 20));
  command->add_option("--most-radius", choice->most_radius, "Largest radius to try")
      ->check(CLI::Range(1, 1 << 20));
  command->add_option("--query-rows", choice->query_rows,
                      "Ask N of the queries, chosen at random by --seed (0: all)");
  command->add_option("--threads", choice->threads, "Threads that search (0: one a core)")
      ->check(CLI::Range(0, 1024));
  command->add_option("--seed", choice->seed, "Seed of every random choice");
  command->add_flag("--json", choice->json, "Print JSON in place of text");
  add_console_options(*command, choice->console);
  return {command,
          [choice] { run_tune(*choice); },
          {{"korvex tune shop queries.fvecs --recall 0.99", "the radius for 99 of 100 neighbours"},
           {"korvex search shop queries.fvecs --radius $(korvex tune shop queries.fvecs --json | "
            "jq .radius)",
            "straight into a search"}}};
}

}  // namespace korvex::cli
