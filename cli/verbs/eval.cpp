#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>
#include <memory>

#include "cli/console.h"
#include "cli/dataset.h"
#include "cli/errors.h"
#include "cli/eval_report.h"
#include "cli/ground_truth.h"
#include "cli/measurement.h"
#include "cli/readers/vector_file.h"
#include "cli/verb.h"
#include "math/topology.h"
#include "runtime/platform/clock.h"
#include "runtime/random.h"

// korvex eval: how near the answers of an index come to the exact ones on given data, and how fast.
namespace korvex::cli {

namespace {

constexpr std::size_t most_queries = 0x7FFFFFFFu;  // a bulk query counts them in int
constexpr std::size_t warm_up_queries = 1000;
constexpr double longest_vector = 1e18;  // squared distances still fit a float
constexpr double recalls_differ = 0.01;
constexpr std::uint64_t sample_stream = 1;  // keeps the samples from repeating the choice of rows

const std::map<std::string, int> result_caches = {{"off", 0}, {"near", 1}, {"exact", 2}};

std::vector<std::string> names_of(const std::map<std::string, int>& map) {
  std::vector<std::string> names;
  for (const auto& entry : map) names.push_back(entry.first);
  return names;
}

struct eval_options {
  std::string base, queries, truth, json_file;
  console_options console;
  std::string metric = "l2sq", result_cache = "off";
  std::size_t base_rows = 0, query_rows = 0, samples = 0;
  double scale_length = 0;
  std::uint64_t seed = 1;
  index_options index;
  int k = 10, rounds = 3;
  std::vector<int> radii = {20, 50, 100, 200, 400};
  double least_recall = 0;
  bool json = false;
};

void add_data_options(CLI::App& command, eval_options& options) {
  command.add_option("--base", options.base, "Vectors to index: the formats of korvex build")
      ->required()
      ->type_name("FILE");
  command.add_option("--queries", options.queries, "Query vectors: same formats and dimension")
      ->required()
      ->type_name("FILE");
  command
      .add_option("--truth", options.truth,
                  "Exact answers: a file of ids (ivecs, or npy, HDF5) with the rows of the nearest "
                  "base vectors of each "
                  "query, nearest first; without it they are computed by brute force on all cores")
      ->type_name("FILE");
  command.add_option("--base-rows", options.base_rows, "Index the first N vectors only (0: all)");
  command.add_option("--query-rows", options.query_rows,
                     "Ask N of the queries, chosen at random by --seed (0: all)");
  command
      .add_option("--scale-length", options.scale_length,
                  "Scale every vector to this Euclidean length first (0: leave them)")
      ->check(CLI::Range(0.0, longest_vector));
  command.add_option("--seed", options.seed, "Seed of every random choice");
}

void add_index_options(CLI::App& command, eval_options& options) {
  command.add_option("--metric", options.metric, metric_help)->check(CLI::IsMember(metric_names));
  command
      .add_option("--constellation", options.index.constellation,
                  "Constellation size; a vector has up to twice as many neighbours")
      ->check(CLI::Range(1, 1024));
  command
      .add_option("--index-radius", options.index.radius,
                  "Candidates looked at while a vector is linked")
      ->check(CLI::Range(1, 1 << 20));
  command.add_option("--probes", options.index.probes, "Pattern probes, each a graph of its own")
      ->check(CLI::Range(1, 16));
  command
      .add_option("--index-threads", options.index.index_threads,
                  "Indexing threads (0: one a core)")
      ->check(CLI::Range(0, 1024));
  command
      .add_option("--search-threads", options.index.search_threads,
                  "Search threads (0: one a core)")
      ->check(CLI::Range(0, 1024));
}

void add_measurement_options(CLI::App& command, eval_options& options) {
  command.add_option("-k,--k", options.k, "Neighbours a query asks for")
      ->check(CLI::Range(1, 1 << 20));
  command
      .add_option(
          "--radii", options.radii,
          "Candidates a query looks at, at least: a list with commas, one line of the table "
          "each. An index looks at 2 x k or more whatever the radius")
      ->delimiter(',')
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->check(CLI::Range(1, 1 << 20));
  command
      .add_option("--rounds", options.rounds,
                  "Times that each radius is measured, the radii taking turns")
      ->check(CLI::Range(1, 1000));
  command
      .add_option(
          "--result-cache", options.result_cache,
          "Cache of recent answers; unless off, later rounds and radii are answered from it")
      ->check(CLI::IsMember(names_of(result_caches)));
}

void add_output_options(CLI::App& command, eval_options& options) {
  command.add_flag("--json", options.json, "Print JSON in place of the table");
  command.add_option("--json-file", options.json_file, "Write the JSON to this file as well")
      ->type_name("FILE");
  command.add_option(
      "--samples", options.samples,
      "Put the answers of N queries, chosen at random, into the JSON; they are asked "
      "at the largest radius");
  command
      .add_option("--fail-if-recall-below", options.least_recall,
                  "End with exit code 6 when the recall at the largest radius is below this share "
                  "(0: never)")
      ->check(CLI::Range(0.0, 1.0));
  add_console_options(command, options.console);
}

struct eval_data {
  matrix base, queries;
  std::vector<std::size_t> query_rows;  // of the query file
};

eval_data load_data(const eval_options& options) {
  eval_data data;
  data.base = load_vectors({options.base}, options.base_rows);
  data.queries = load_vectors({options.queries, vector_format::unknown, "test"}, 0);
  if (data.base.dimension != data.queries.dimension)
    throw file_error(options.queries,
                     fmt::format("vectors of {} dimensions, expected {} as in {}",
                                 data.queries.dimension, data.base.dimension, options.base));
  if (options.index.metric.unit) {
    check_directions(options.base, data.base.row(0), data.base.rows, data.base.dimension, 0);
    check_directions(options.queries, data.queries.row(0), data.queries.rows, data.base.dimension,
                     0);
  }
  const std::size_t asked = options.query_rows == 0 ? data.queries.rows : options.query_rows;
  data.query_rows = choose(data.queries.rows, std::min(asked, most_queries), options.seed);
  keep_rows(data.queries, data.query_rows);
  if (static_cast<std::size_t>(options.k) > data.base.rows)
    throw tool_error(exit_usage,
                     fmt::format("--k {}: expected at most {}, the number of base vectors",
                                 options.k, data.base.rows));
  const double length = options.index.metric.unit ? 1 : options.scale_length;
  if (length > 0) {
    scale_to_length(data.base, length);
    scale_to_length(data.queries, length);
  }
  return data;
}

ground_truth find_truth(const eval_options& options, const eval_data& data, eval_report& report) {
  const korvex_distance_type metric = options.index.metric.type;
  const auto k = static_cast<std::size_t>(options.k);
  if (!options.truth.empty())
    return ground_truth::load(options.truth, data.base, data.queries, data.query_rows, metric, k);
  const std::uint64_t began = platform::monotonic_ns();
  ground_truth truth =
      ground_truth::compute(data.base, data.queries, metric, k, static_cast<unsigned>(cpu_count()));
  report.truth_seconds = static_cast<double>(platform::monotonic_ns() - began) / 1e9;
  return truth;
}

// The mean recall of one pass over the queries.
class recall_sum {
 public:
  explicit recall_sum(const ground_truth& truth) : truth_(truth) {}
  answer_listener listener() {
    return [this](std::size_t query, const std::uint32_t* ids, std::size_t count) {
      sum_ += truth_.recall(query, ids, count);
      ++queries_;
    };
  }
  double mean() const { return sum_ / static_cast<double>(queries_); }

 private:
  const ground_truth& truth_;
  double sum_ = 0;
  std::size_t queries_ = 0;
};

// One radius, one round. Answers are looked at in the first round only, so that later rounds run
// without a break.
void measure_radius(Korvex& index, const matrix& queries, const ground_truth& truth,
                    bool first_round, std::atomic<std::uint64_t>& asked, radius_result& result) {
  const int k = static_cast<int>(truth.k());
  recall_sum bulk_recall(truth);
  recall_sum session_recall(truth);
  const double seconds = time_bulk(index, queries, result.radius, k,
                                   first_round ? bulk_recall.listener() : answer_listener());
  result.queries_per_second.push_back(static_cast<double>(queries.rows) / seconds);
  asked.fetch_add(queries.rows, std::memory_order_relaxed);
  const std::vector<double> latencies = time_sessions(
      index, queries, result.radius, k, first_round ? session_recall.listener() : answer_listener(),
      [&] { asked.fetch_add(1, std::memory_order_relaxed); });
  result.latencies.insert(result.latencies.end(), latencies.begin(), latencies.end());
  if (!first_round) return;
  result.recall = bulk_recall.mean();
  result.session_recall = session_recall.mean();
}

void measure(const eval_options& options, Korvex& index, const matrix& queries,
             const ground_truth& truth, eval_report& report) {
  matrix warm_up{queries.dimension, std::min(queries.rows, warm_up_queries), {}};
  warm_up.values.assign(queries.row(0), queries.row(warm_up.rows));
  if (options.index.result_cache == 0)  // else it would fill the cache
    time_bulk(index, warm_up, options.radii.front(), options.k, {});

  for (const int radius : options.radii) report.results.emplace_back().radius = radius;
  std::atomic<std::uint64_t> asked{0};
  const std::uint64_t all =
      2 * queries.rows * options.radii.size() * static_cast<std::uint64_t>(options.rounds);
  const progress line("asking", all, [&] { return asked.load(std::memory_order_relaxed); });
  for (int round = 0; round < options.rounds; ++round)
    for (radius_result& result : report.results)
      measure_radius(index, queries, truth, round == 0, asked, result);
  for (radius_result& result : report.results)
    std::sort(result.latencies.begin(), result.latencies.end());
}

void warn_of_differences(const eval_report& report) {
  for (const radius_result& at : report.results)
    if (std::abs(at.recall - at.session_recall) > recalls_differ)
      note(fmt::format("at radius {} the bulk query has recall {:.4f}, single queries {:.4f}",
                       at.radius, at.recall, at.session_recall));
}

void take_samples(const eval_options& options, Korvex& index, const eval_data& data,
                  const ground_truth& truth, eval_report& report) {
  report.sample_radius = *std::max_element(options.radii.begin(), options.radii.end());
  for (const std::size_t query :
       choose(data.queries.rows, options.samples, options.seed + sample_stream)) {
    const answer found = ask_once(index, data.queries.row(query), report.sample_radius, options.k);
    sample& each = report.samples.emplace_back();
    each.query_row = data.query_rows[query];
    for (std::size_t i = 0; i < found.ids.size(); ++i)
      each.neighbours.push_back({found.ids[i], options.index.metric.shown(found.distances[i]),
                                 truth.is_near(query, found.ids[i])});
  }
}

void describe(const eval_options& options, const eval_data& data, eval_report& report) {
  report.base_file = options.base;
  report.query_file = options.queries;
  report.truth_file = options.truth;
  report.base_rows = data.base.rows;
  report.query_rows = data.queries.rows;
  report.dimension = data.base.dimension;
  report.scale_length = options.scale_length;
  report.seed = options.seed;
  report.metric = options.metric;
  report.result_cache = options.result_cache;
  report.kernels = chosen_kernels();
  report.constellation = options.index.constellation;
  report.index_radius = options.index.radius;
  report.probes = options.index.probes;
  report.index_threads = options.index.index_threads;
  report.search_threads = options.index.search_threads;
  report.k = options.k;
  report.rounds = options.rounds;
}

void resolve(eval_options& options) {
  options.index.metric = metric_named(options.metric);
  options.index.result_cache = result_caches.at(options.result_cache);
  if (options.index.index_threads == 0) options.index.index_threads = cpu_count();
  if (options.index.search_threads == 0) options.index.search_threads = cpu_count();
}

void require_recall(const eval_options& options, const eval_report& report) {
  const auto widest = std::max_element(
      report.results.begin(), report.results.end(),
      [](const radius_result& a, const radius_result& b) { return a.radius < b.radius; });
  if (widest->recall >= options.least_recall) return;
  throw tool_error(exit_recall,
                   fmt::format("recall@{} is {:.4f} at radius {}, expected {} or more", options.k,
                               widest->recall, widest->radius, options.least_recall));
}

void run_eval(eval_options options) {
  start_console(options.console);
  resolve(options);
  eval_report report;
  const eval_data data = load_data(options);
  describe(options, data, report);

  // What the index draws on this thread; its other threads draw from seeds of their own.
  seed_random(options.seed);
  // The truth is found later: memory that it frees would be taken for the index unseen.
  const built_index built = build_index(data.base, options.index);
  report.build_seconds = built.seconds;
  report.bytes_per_vector = built.bytes_per_vector;

  const ground_truth truth = find_truth(options, data, report);
  measure(options, *built.index, data.queries, truth, report);
  warn_of_differences(report);
  take_samples(options, *built.index, data, truth, report);

  if (!options.json_file.empty()) write_result_file(options.json_file, as_json(report));
  print_result(options.json ? as_json(report) : as_table(report));
  require_recall(options, report);
}

}  // namespace

verb add_eval(CLI::App& tool) {
  CLI::App* const command = tool.add_subcommand(
      "eval", "Measures an index on your data: build time, memory, recall, speed and latency");
  command->footer(
      "The index is built in memory and gone afterwards. Recall counts an answer that is as near "
      "as "
      "the k-th nearest, whichever of several equals it is. Queries a second come from one bulk "
      "query of all queries, latencies from one session that asks one query at a time; both go "
      "through the public interface.");
  auto options = std::make_shared<eval_options>();
  command->option_defaults()->always_capture_default()->multi_option_policy(
      CLI::MultiOptionPolicy::TakeLast);
  add_data_options(*command, *options);
  add_index_options(*command, *options);
  add_measurement_options(*command, *options);
  add_output_options(*command, *options);
  return {command,
          [options] { run_eval(*options); },
          {{"korvex eval --base base.fvecs --queries queries.fvecs", "a line for each radius"},
           {"korvex eval --base sift.hdf5 --queries sift.hdf5 --truth sift.hdf5 --radii 200 "
            "--fail-if-recall-below 0.95",
            "for a build server"}}};
}

}  // namespace korvex::cli
