#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>

#include "cli/errors.h"
#include "cli/format.h"
#include "cli/index_trial.h"
#include "cli/verb.h"

// korvex tune: the smallest radius for a wanted recall.
namespace korvex::cli {

namespace {

constexpr int first_radius = 16;

struct tune_choice {
  trial_options trial;
  double recall = 0.95;
  int most_radius = 10'000;
};

struct outcome {
  int radius = 0;
  mean_recall recall;
  double queries_per_second = 0;
};

// Asks the queries from `first` to `last` at one radius.
outcome run(const index_trial& trial, int radius, std::size_t first, std::size_t last) {
  answer_rows answers;
  const double speed = trial.ask(radius, first, last, answers);
  return {radius, trial.truth->recall(answers, first), speed};
}

// Doubles the radius until the recall suffices, then halves the interval. Nothing when the largest
// radius does not suffice; `best` is the recall there.
std::optional<int> smallest_radius(const index_trial& trial, std::size_t n,
                                   const tune_choice& choice, double* best) {
  const auto suffices = [&](int radius) {
    *best = run(trial, radius, 0, n).recall.mean;
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

std::string report(const trial_options& options, double wanted, const outcome& tuned,
                   const outcome& held_out, std::size_t n_tuned, std::size_t n_held_out) {
  if (!options.json)
    return fmt::format(
        "radius    {}\nrecall@{:<2} {:.4f} +- {:.4f} on the {} queries that it was "
        "chosen by\nheld out  {:.4f} +- {:.4f} on {} others\nspeed     {} queries/s "
        "by {} thread{}\n",
        tuned.radius, options.k, tuned.recall.mean, tuned.recall.uncertainty, grouped(n_tuned),
        held_out.recall.mean, held_out.recall.uncertainty, grouped(n_held_out),
        grouped(static_cast<std::uint64_t>(held_out.queries_per_second)), options.threads,
        options.threads == 1 ? "" : "s");
  const nlohmann::ordered_json all = {{"radius", tuned.radius},
                                      {"wanted_recall", wanted},
                                      {"k", options.k},
                                      {"recall", tuned.recall.mean},
                                      {"recall_uncertainty", tuned.recall.uncertainty},
                                      {"held_out_recall", held_out.recall.mean},
                                      {"held_out_uncertainty", held_out.recall.uncertainty},
                                      {"queries", n_tuned},
                                      {"held_out_queries", n_held_out},
                                      {"queries_per_second", held_out.queries_per_second},
                                      {"threads", options.threads}};
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

void run_tune(const tune_choice& choice) {
  index_trial trial(choice.trial);
  matrix& queries = trial.queries;
  if (queries.rows < 2)
    throw file_error(choice.trial.queries.path,
                     "1 query, expected 2 or more: half of them are held out");
  shuffle_rows(queries, choice.trial.seed);
  trial.find_truth();
  const std::size_t half = queries.rows / 2;
  double best = 0;
  const std::optional<int> radius = smallest_radius(trial, half, choice, &best);
  if (!radius)
    throw tool_error(exit_recall,
                     fmt::format("recall@{} is {:.4f} at the largest radius, {}; "
                                 "expected {} or more. More --probes or a larger "
                                 "--constellation in korvex build reach further",
                                 choice.trial.k, best, choice.most_radius, choice.recall));
  const outcome tuned = run(trial, *radius, 0, half);
  const outcome held_out = run(trial, *radius, half, queries.rows);
  print_result(report(trial.options, choice.recall, tuned, held_out, half, queries.rows - half));
  trial.index->close();
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
  choice->trial.query_rows = 2'000;
  add_trial_input(*command, choice->trial);
  command->add_option("--recall", choice->recall, "Wanted share of the k nearest, 0 to 1")
      ->check(CLI::Range(0.0, 1.0));
  command->add_option("--most-radius", choice->most_radius, "Largest radius to try")
      ->check(CLI::Range(1, 1 << 20));
  add_trial_options(*command, choice->trial);
  return {command,
          [choice] { run_tune(*choice); },
          {{"korvex tune shop queries.fvecs --recall 0.99", "the radius for 99 of 100 neighbours"},
           {"korvex search shop queries.fvecs --radius $(korvex tune shop queries.fvecs --json | "
            "jq .radius)",
            "straight into a search"}}};
}

}  // namespace korvex::cli
