#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <atomic>
#include <memory>
#include <nlohmann/json.hpp>

#include "cli/format.h"
#include "cli/index_trial.h"
#include "cli/radius_result.h"
#include "cli/verb.h"
#include "math/kernels.h"

// korvex bench: speed of an index on disk, as it is.
namespace korvex::cli {

namespace {

struct bench_choice {
  trial_options trial;
  int rounds = 3;
  std::vector<int> radii = {20, 50, 100, 200, 400};
  bool recall = false;
};

// One radius, one round.
void measure(const index_trial& trial, bool with_recall, radius_result& result) {
  const std::size_t n = trial.queries.rows;
  answer_rows answers;
  result.queries_per_second.push_back(trial.ask(result.radius, 0, n, answers));
  const std::vector<double> latencies =
      time_queries(*trial.index, trial.queries.values.data(), n,
                   {trial.options.k, result.radius, trial.options.threads});
  stop_if_interrupted();
  result.latencies.insert(result.latencies.end(), latencies.begin(), latencies.end());
  if (with_recall) result.recall = trial.truth->recall(answers, 0).mean;
}

std::vector<radius_result> measure_all(const index_trial& trial, const bench_choice& choice) {
  std::vector<radius_result> results;
  for (const int radius : choice.radii) results.emplace_back().radius = radius;
  radius_result warm_up{choice.radii.front(), 0, 0, {}, {}};
  measure(trial, false, warm_up);
  std::atomic<std::uint64_t> done{0};
  const std::uint64_t rounds = static_cast<std::uint64_t>(choice.rounds);
  const progress line("asking", 2 * trial.queries.rows * results.size() * rounds,
                      [&] { return done.load(); });
  for (int round = 0; round < choice.rounds; ++round) {
    for (radius_result& result : results) {
      measure(trial, choice.recall && round == 0, result);
      done += 2 * trial.queries.rows;
    }
  }
  for (radius_result& result : results) std::sort(result.latencies.begin(), result.latencies.end());
  return results;
}

std::string report(const index_trial& trial, const bench_choice& choice,
                   const std::vector<radius_result>& results) {
  const disk_index& index = *trial.index;
  const int k = trial.options.k;
  const int threads = trial.options.threads;
  if (!trial.options.json)
    return fmt::format(
        "{} vectors of {} dimensions, metric {}; {} queries, {} thread{}, kernels "
        "{}\n\n{}\nqueries/s: all threads (median of the rounds); mean, p50, p99: "
        "one thread, one query at a time\n",
        grouped(index.size()), index.dimension(), index.metric().name, grouped(trial.queries.rows),
        threads, threads == 1 ? "" : "s", chosen_kernels(),
        results_table(results, k, choice.recall));
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  for (const radius_result& result : results) {
    rows.push_back(result_json(result));
    if (!choice.recall) rows.back().erase("recall");
  }
  const nlohmann::ordered_json all = {{"vectors", index.size()},
                                      {"dimension", index.dimension()},
                                      {"metric", index.metric().name},
                                      {"queries", trial.queries.rows},
                                      {"threads", threads},
                                      {"kernels", chosen_kernels()},
                                      {"k", k},
                                      {"rounds", choice.rounds},
                                      {"results", rows}};
  return all.dump(2) + "\n";
}

void run_bench(const bench_choice& choice) {
  index_trial trial(choice.trial);
  if (choice.recall) trial.find_truth();
  print_result(report(trial, choice, measure_all(trial, choice)));
  trial.index->close();
}

}  // namespace

verb add_bench(CLI::App& tool) {
  CLI::App* const command =
      tool.add_subcommand("bench", "Measures queries a second and latency of an index on disk");
  command->footer(
      "Queries are answered once before the first measurement, so that what they touch is in "
      "memory. The radii take turns.");
  auto choice = std::make_shared<bench_choice>();
  command->option_defaults()->always_capture_default();
  choice->trial.query_rows = 1'000;
  add_trial_input(*command, choice->trial);
  command
      ->add_option("--radii", choice->radii,
                   "Candidates looked at, at least: a list with commas, a line of the table each")
      ->delimiter(',')
      ->check(CLI::Range(1, 1 << 20));
  command->add_flag("--recall", choice->recall,
                    "Measure the recall too, against a brute-force search of the index");
  command->add_option("--rounds", choice->rounds, "Times that each radius is measured")
      ->check(CLI::Range(1, 1000));
  add_trial_options(*command, choice->trial);
  return {command,
          [choice] { run_bench(*choice); },
          {{"korvex bench shop queries.fvecs", "speed at five radii, on all cores"},
           {"korvex bench shop queries.fvecs --radii 60,80 --recall --threads 1",
            "around a value that korvex tune found"}}};
}

}  // namespace korvex::cli
