#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <atomic>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "cli/console.h"
#include "cli/disk_index.h"
#include "cli/format.h"
#include "cli/index_truth.h"
#include "cli/interrupt.h"
#include "cli/query_batch.h"
#include "cli/radius_result.h"
#include "cli/verb.h"
#include "math/kernels.h"
#include "math/topology.h"
#include "runtime/platform/clock.h"

// korvex bench: speed of an index on disk, as it is.
namespace korvex::cli {

namespace {

struct bench_choice {
  index_place place;
  vector_input queries{"", vector_format::unknown, "test"};
  std::size_t query_rows = 1'000;
  std::uint64_t seed = 1;
  int k = 10, rounds = 3, threads = 0;
  std::vector<int> radii = {20, 50, 100, 200, 400};
  bool recall = false, json = false;
  console_options console;
};

// One radius, one round.
void measure(const disk_index& index, const matrix& queries, const bench_choice& choice,
             const index_truth* truth, radius_result& result) {
  const query_options options{choice.k, result.radius, choice.threads};
  answer_rows answers;
  const std::uint64_t began = platform::monotonic_ns();
  answer_queries(index, queries.values.data(), queries.rows, options, answers);
  const double seconds = static_cast<double>(platform::monotonic_ns() - began) / 1e9;
  stop_if_interrupted();
  result.queries_per_second.push_back(static_cast<double>(queries.rows) / seconds);
  const std::vector<double> latencies =
      time_queries(index, queries.values.data(), queries.rows, options);
  stop_if_interrupted();
  result.latencies.insert(result.latencies.end(), latencies.begin(), latencies.end());
  if (truth != nullptr) result.recall = truth->recall(answers, 0).mean;
}

std::vector<radius_result> measure_all(const disk_index& index, const matrix& queries,
                                       const bench_choice& choice, const index_truth* truth) {
  std::vector<radius_result> results;
  for (const int radius : choice.radii) results.emplace_back().radius = radius;
  radius_result warm_up{choice.radii.front(), 0, 0, {}, {}};
  measure(index, queries, choice, nullptr, warm_up);
  std::atomic<std::uint64_t> done{0};
  const std::uint64_t rounds = static_cast<std::uint64_t>(choice.rounds);
  const progress line("asking", 2 * queries.rows * results.size() * rounds,
                      [&] { return done.load(); });
  for (int round = 0; round < choice.rounds; ++round) {
    for (radius_result& result : results) {
      measure(index, queries, choice, round == 0 ? truth : nullptr, result);
      done += 2 * queries.rows;
    }
  }
  for (radius_result& result : results) std::sort(result.latencies.begin(), result.latencies.end());
  return results;
}

std::string report(const disk_index& index, const matrix& queries, const bench_choice& choice,
                   const std::vector<radius_result>& results) {
  if (!choice.json)
    return fmt::format(
        "{} vectors of {} dimensions, metric {}; {} queries, {} thread{}, kernels "
        "{}\n\n{}\nqueries/s: all threads (median of the rounds); mean, p50, p99: "
        "one thread, one query at a time\n",
        grouped(index.size()), index.dimension(), index.metric().name, grouped(queries.rows),
        choice.threads, choice.threads == 1 ? "" : "s", chosen_kernels(),
        results_table(results, choice.k, choice.recall));
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  for (const radius_result& result : results) {
    rows.push_back(result_json(result));
    if (!choice.recall) rows.back().erase("recall");
  }
  const nlohmann::ordered_json all = {
      {"vectors", index.size()}, {"dimension", index.dimension()}, {"metric", index.metric().name},
      {"queries", queries.rows}, {"threads", choice.threads},      {"kernels", chosen_kernels()},
      {"k", choice.k},           {"rounds", choice.rounds},        {"results", rows}};
  return all.dump(2) + "\n";
}

void run_bench(bench_choice choice) {
  start_console(choice.console);
  const interrupt_guard guard;
  if (choice.threads == 0) choice.threads = cpu_count();
  const auto index = disk_index::open(choice.place, 0, false);
  const matrix queries = load_queries(choice.queries, *index, choice.query_rows, choice.seed);
  std::optional<index_truth> truth;
  if (choice.recall)
    truth.emplace(*index, queries, static_cast<std::size_t>(choice.k),
                  static_cast<unsigned>(choice.threads));
  const std::vector<radius_result> results =
      measure_all(*index, queries, choice, truth ? &*truth : nullptr);
  print_result(report(*index, queries, choice, results));
  index->close();
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
  add_place_options(*command, choice->place);
  command
      ->add_option("queries", choice->queries.path, "Query vectors, in any format of korvex build")
      ->required()
      ->type_name("FILE");
  command
      ->add_option("--radii", choice->radii,
                   "Candidates looked at, at least: a list with commas, a line of the table each")
      ->delimiter(',')
      ->check(CLI::Range(1, 1 << 20));
  command->add_option("-k,--k", choice->k, "Neighbours of each query")
      ->check(CLI::Range(1, 1 << 20));
  command->add_flag("--recall", choice->recall,
                    "Measure the recall too, against a brute-force search of the index");
  command->add_option("--query-rows", choice->query_rows,
                      "Ask N of the queries, chosen at random by --seed (0: all)");
  command->add_option("--rounds", choice->rounds, "Times that each radius is measured")
      ->check(CLI::Range(1, 1000));
  command->add_option("--threads", choice->threads, "Threads that search (0: one a core)")
      ->check(CLI::Range(0, 1024));
  command->add_option("--seed", choice->seed, "Seed of the choice of queries");
  command->add_flag("--json", choice->json, "Print JSON in place of the table");
  add_console_options(*command, choice->console);
  return {command,
          [choice] { run_bench(*choice); },
          {{"korvex bench shop queries.fvecs", "speed at five radii, on all cores"},
           {"korvex bench shop queries.fvecs --radii 60,80 --recall --threads 1",
            "around a value that korvex tune found"}}};
}

}  // namespace korvex::cli
