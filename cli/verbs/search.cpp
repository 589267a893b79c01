#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <memory>
#include <optional>

#include "cli/answer_writer.h"
#include "cli/console.h"
#include "cli/dataset.h"
#include "cli/disk_index.h"
#include "cli/interrupt.h"
#include "cli/query_batch.h"
#include "cli/readers/vector_file.h"
#include "cli/verb.h"

// korvex search: the nearest vectors of each query.
namespace korvex::cli {

namespace {

constexpr std::size_t batch_floats = 1u << 20;
constexpr std::size_t most_batch_rows = 4'096;

struct search_choice {
  index_place place;
  vector_input queries{"", vector_format::unknown, "test"};
  std::string format = "auto";
  std::uint64_t rows = 0;
  query_options query;
  answer_options answers;
  console_options console;
};

std::unique_ptr<vector_file> open_queries(search_choice& choice, const disk_index& index) {
  choice.queries.format = format_named(choice.format);
  auto file = open_vector_file(choice.queries);
  if (file->dimension() != index.dimension())
    throw file_error(choice.queries.path,
                     fmt::format("vectors of {} dimensions, expected {} as in the index",
                                 file->dimension(), index.dimension()));
  return file;
}

void run_search(search_choice choice) {
  start_console(choice.console);
  const interrupt_guard guard;
  const auto index = disk_index::open(choice.place, 0, false);
  const auto file = open_queries(choice, *index);
  const std::uint64_t most = choice.rows == 0 ? ~std::uint64_t{0} : choice.rows;
  const std::uint64_t known = choice.queries.path == standard_input ? 0 : file->rows().value_or(0);
  answer_writer writer(choice.answers, *index, choice.query.k, std::min(known, most));

  const std::size_t batch =
      std::clamp<std::size_t>(batch_floats / index->dimension(), 1, most_batch_rows);
  std::vector<float> queries(batch * index->dimension());
  answer_rows answers;
  std::atomic<std::uint64_t> asked{0};
  const progress line("searching", std::min(known, most), [&] { return asked.load(); });
  while (asked < most) {
    const std::size_t got =
        file->read(std::min<std::uint64_t>(batch, most - asked), queries.data());
    if (got == 0) break;
    check_finite(choice.queries.path, queries.data(), got, index->dimension(), asked);
    answer_queries(*index, queries.data(), got, choice.query, answers);
    stop_if_interrupted(fmt::format("interrupted after {} queries", asked.load()));
    writer.write(answers);
    asked += got;
  }
  writer.commit();
  index->close();
}

void add_query_options(CLI::App& command, search_choice& choice) {
  command
      .add_option("queries", choice.queries.path,
                  "Query vectors, in any format of korvex build (of HDF5 the data set test); - for "
                  "standard input")
      ->required()
      ->type_name("FILE");
  command
      .add_option("--format", choice.format,
                  "Format of an input whose name does not tell, such as -")
      ->check(CLI::IsMember(format_names()));
  command.add_option("--rows", choice.rows, "Ask the first N queries only (0: all)")
      ->type_name("N");
  command.add_option("-k,--k", choice.query.k, "Neighbours of each query")
      ->check(CLI::Range(1, 1 << 20));
  command
      .add_option("--radius", choice.query.radius,
                  "Candidates looked at, at least: more find more and take longer; korvex tune "
                  "finds the value for a wanted recall")
      ->check(CLI::Range(1, 1 << 20));
  command.add_option("--threads", choice.query.threads, "Threads that search (0: one a core)")
      ->check(CLI::Range(0, 1024));
}

}  // namespace

verb add_search(CLI::App& tool) {
  CLI::App* const command =
      tool.add_subcommand("search", "Prints the nearest vectors of each query");
  command->footer(
      "Text has a line for each neighbour, nearest first: query, rank from 1, id, distance, and "
      "the label when the index keeps labels. json has a line for each query. ivecs and npy hold "
      "the ids, a row of k for each query; where fewer were found -1 fills the row. Deleted "
      "vectors are never among them.");
  auto choice = std::make_shared<search_choice>();
  command->option_defaults()->always_capture_default();
  add_place_options(*command, choice->place);
  add_query_options(*command, *choice);
  add_answer_options(*command, choice->answers);
  add_console_options(*command, choice->console);
  return {command,
          [choice] { run_search(*choice); },
          {{"korvex search shop queries.fvecs -k 5", "five lines for each query"},
           {"korvex search shop queries.npy --to json | jq '.ids[0]'", "the nearest id of each"},
           {"echo '0.2 0.7 1' | korvex search shop - --format text", "one query by hand"},
           {"korvex search shop queries.npy -o near.ivecs --distances near.fvecs",
            "files for other programs"}}};
}

}  // namespace korvex::cli
