#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <limits>
#include <memory>

#include "cli/console.h"
#include "cli/dataset.h"
#include "cli/errors.h"
#include "cli/exact_search.h"
#include "cli/interrupt.h"
#include "cli/metric.h"
#include "cli/verb.h"
#include "cli/writers/vector_writer.h"
#include "math/topology.h"

// korvex groundtruth: the exact neighbours of each query.
namespace korvex::cli {

namespace {

constexpr std::size_t block_bytes = 64u << 20;

struct truth_choice {
  vector_input base;
  vector_input queries{"", vector_format::unknown, "test"};
  std::string format = "auto", metric = "l2sq", output, distances, to = "auto";
  std::uint64_t base_rows = 0, query_rows = 0;
  std::size_t k = 100;
  unsigned threads = 0;
  console_options console;
};

// The base file from front to back against all queries.
void compare_all(const truth_choice& choice, const metric_choice& metric, vector_file& base,
                 exact_search& exact, std::size_t n_queries) {
  const std::uint64_t most = choice.base_rows == 0 ? most_rows : choice.base_rows;
  matrix block{base.dimension(), 0, {}};
  const std::size_t rows =
      std::max<std::size_t>(block_bytes / (base.dimension() * sizeof(float)), 1);
  block.values.resize(rows * base.dimension());
  const progress line("comparing", std::min(base.rows().value_or(0), most),
                      [&] { return exact.compared() / n_queries; });
  std::uint64_t done = 0;
  while (done < most) {
    block.rows = base.read(std::min<std::uint64_t>(rows, most - done), block.values.data());
    if (block.rows == 0) break;
    check_finite(choice.base.path, block.values.data(), block.rows, block.dimension, done);
    if (metric.unit) scale_to_length(block, 1);
    exact.offer(block.values.data(), block.rows, static_cast<std::uint32_t>(done));
    stop_if_interrupted("interrupted; nothing was written");
    done += block.rows;
  }
  if (done < choice.k)
    throw tool_error(exit_usage, fmt::format("--k {}: expected at most {}, the number of base "
                                             "vectors",
                                             choice.k, done));
}

void write_answers(const truth_choice& choice, const metric_choice& metric,
                   const exact_search& exact, std::size_t n_queries) {
  const std::string to =
      choice.to == "auto" && (choice.output.empty() || choice.output == "-") ? "ivecs" : choice.to;
  vector_writer ids(choice.output, output_format(choice.output, to), element_type::i64, choice.k,
                    n_queries);
  std::unique_ptr<vector_writer> distances;
  if (!choice.distances.empty())
    distances =
        std::make_unique<vector_writer>(choice.distances, output_format(choice.distances, "auto"),
                                        element_type::f32, choice.k, n_queries);
  std::vector<double> row(choice.k);
  for (std::size_t query = 0; query < n_queries; ++query) {
    const std::vector<exact_neighbour> nearest = exact.nearest(query);
    std::transform(nearest.begin(), nearest.end(), row.begin(),
                   [](const auto& each) { return static_cast<double>(each.id); });
    ids.write(row.data(), 1);
    if (distances == nullptr) continue;
    std::transform(nearest.begin(), nearest.end(), row.begin(), [&](const auto& each) {
      return static_cast<double>(metric.shown(exact.direction() * each.key));
    });
    distances->write(row.data(), 1);
  }
  ids.commit();
  if (distances != nullptr) distances->commit();
}

void run_groundtruth(truth_choice choice) {
  start_console(choice.console);
  const interrupt_guard guard;
  const metric_choice metric = metric_named(choice.metric);
  choice.base.format = choice.queries.format = format_named(choice.format);
  matrix queries = load_vectors(choice.queries, choice.query_rows);
  if (metric.unit) scale_to_length(queries, 1);
  const auto base = open_vector_file(choice.base);
  if (base->dimension() != queries.dimension)
    throw file_error(choice.queries.path,
                     fmt::format("vectors of {} dimensions, expected {} as in {}",
                                 queries.dimension, base->dimension(), choice.base.path));
  if (base->rows() && choice.base.path != standard_input && choice.k > *base->rows())
    throw tool_error(exit_usage, fmt::format("--k {}: expected at most {}, the number of base "
                                             "vectors",
                                             choice.k, *base->rows()));
  const unsigned threads =
      choice.threads != 0 ? choice.threads : static_cast<unsigned>(cpu_count());
  exact_search exact(queries, metric.type, choice.k, threads);
  compare_all(choice, metric, *base, exact, queries.rows);
  write_answers(choice, metric, exact, queries.rows);
}

void add_truth_options(CLI::App& command, truth_choice& choice) {
  command
      .add_option("base", choice.base.path,
                  "Vectors to look among: the formats of korvex build; - for standard input")
      ->required()
      ->type_name("BASE");
  command.add_option("queries", choice.queries.path, "Query vectors, which must fit into memory")
      ->required()
      ->type_name("QUERIES");
  command.add_option("-k,--k", choice.k, "Neighbours of each query")->check(CLI::Range(1, 1 << 20));
  command.add_option("--metric", choice.metric, metric_help)->check(CLI::IsMember(metric_names));
  command
      .add_option("-o,--output", choice.output,
                  "File for the ids, a row of k each: .ivecs, .npy or .txt (default: stdout)")
      ->type_name("FILE");
  command.add_option("--to", choice.to, "Format of the ids; auto: by the name, else ivecs")
      ->check(CLI::IsMember({"auto", "ivecs", "npy", "text"}));
  command
      .add_option("--distances", choice.distances,
                  "File for the distances, a row of k each: .fvecs, .fbin, .npy or .txt")
      ->type_name("FILE");
  command
      .add_option("--base-rows", choice.base_rows, "Look among the first N vectors only (0: all)")
      ->type_name("N");
  command.add_option("--query-rows", choice.query_rows, "Only the first N queries (0: all)")
      ->type_name("N");
  command
      .add_option("--format", choice.format,
                  "Format of an input whose name does not tell, such as -")
      ->check(CLI::IsMember(format_names()));
  command.add_option("--threads", choice.threads, "Threads (0: one a core)")
      ->check(CLI::Range(0, 1024));
}

}  // namespace

verb add_groundtruth(CLI::App& tool) {
  CLI::App* const command =
      tool.add_subcommand("groundtruth", "Finds the exact neighbours of each query by brute force");
  command->footer(
      "Ids are the rows of the base file, nearest first; of equally near ones the smaller id comes "
      "first. The base is read in blocks and need not fit into memory.");
  auto choice = std::make_shared<truth_choice>();
  command->option_defaults()->always_capture_default();
  add_truth_options(*command, *choice);
  add_console_options(*command, choice->console);
  return {command,
          [choice] { run_groundtruth(*choice); },
          {{"korvex groundtruth base.fvecs queries.fvecs -o truth.ivecs", "100 ids for each query"},
           {"korvex groundtruth base.npy queries.npy -k 10 --metric cosine -o near.npy "
            "--distances far.npy",
            "with distances, for numpy"}}};
}

}  // namespace korvex::cli
