#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <memory>

#include "cli/console.h"
#include "cli/disk_index.h"
#include "cli/feed.h"
#include "cli/interrupt.h"
#include "cli/verb.h"

// korvex build: a new index on disk from a file of vectors.
namespace korvex::cli {

namespace {

struct build_choice {
  index_place place;
  feed_options feed;
  std::string metric = "l2sq";
  index_shape shape;
  int threads = 0;
  console_options console;
};

void run_build(build_choice choice) {
  start_console(choice.console);
  const interrupt_guard guard;
  choice.shape.metric = metric_named(choice.metric);
  check_feed(choice.feed, choice.shape.metric);
  feed vectors(choice.feed);
  choice.shape.dimension = static_cast<std::uint32_t>(vectors.size().dimension);
  choice.shape.expected_rows = vectors.size().rows;
  choice.shape.labels = !choice.feed.labels.empty();
  const auto index = disk_index::create(choice.place, choice.shape, choice.threads);
  vectors.run(*index);
  if (vectors.added() == 0) {
    stop_if_interrupted("interrupted before anything was added");
    throw file_error(choice.feed.vectors.path, "no rows");
  }
  index->keep();
  index->close();
  print_result(feed_report(vectors, 0, choice.feed.json));
  stop_if_feed_was_cut(vectors, choice.feed, choice.place);
}

void add_shape_options(CLI::App& command, build_choice& choice) {
  command.add_option("--metric", choice.metric, metric_help)->check(CLI::IsMember(metric_names));
  command
      .add_option(
          "--constellation", choice.shape.constellation,
          "Constellation size; a vector has up to twice as many neighbours, of 4 bytes each")
      ->check(CLI::Range(1, 1024));
  command
      .add_option("--radius", choice.shape.radius,
                  "Candidates looked at while a vector is linked: more link better and take longer")
      ->check(CLI::Range(1, 1 << 20));
  command
      .add_option("--probes", choice.shape.probes,
                  "Pattern probes, each a graph of its own that every search walks")
      ->check(CLI::Range(1, 16));
  command.add_option("--threads", choice.threads, "Indexing threads (0: one a core)")
      ->check(CLI::Range(0, 1024));
}

}  // namespace

verb add_build(CLI::App& tool) {
  CLI::App* const command =
      tool.add_subcommand("build", "Creates an index on disk from a file of vectors");
  command->footer(
      "Row i of the file gets the id i. A file is read twice, first to check it, and need not fit "
      "into memory. Nothing is left behind when the input is damaged; after Ctrl-C the index holds "
      "what was added so far, and the message says how to go on.");
  auto choice = std::make_shared<build_choice>();
  command->option_defaults()->always_capture_default();
  add_place_options(*command, choice->place);
  add_feed_options(*command, choice->feed);
  add_shape_options(*command, *choice);
  add_console_options(*command, choice->console);
  return {command,
          [choice] { run_build(*choice); },
          {{"korvex build shop base.fvecs", "an index of squared Euclidean distance in ./shop"},
           {"korvex build shop items.npy --metric cosine --labels skus.txt",
            "directions, and the number of its article with each"},
           {"zcat items.fvecs.gz | korvex build shop - --format fvecs",
            "from a pipe; the format must be said"}}};
}

}  // namespace korvex::cli
