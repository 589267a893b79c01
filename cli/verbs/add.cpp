#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <memory>

#include "cli/console.h"
#include "cli/disk_index.h"
#include "cli/errors.h"
#include "cli/feed.h"
#include "cli/format.h"
#include "cli/interrupt.h"
#include "cli/verb.h"

// korvex add: more vectors for an index on disk.
namespace korvex::cli {

namespace {

struct add_choice {
  index_place place;
  feed_options feed;
  int threads = 0;
  console_options console;
};

void require_fit(const disk_index& index, const feed_size& size, const feed_options& options) {
  if (size.dimension != index.dimension())
    throw file_error(options.vectors.path,
                     fmt::format("vectors of {} dimensions, expected {} as in the index",
                                 size.dimension, index.dimension()));
  if (!options.labels.empty() && !index.has_labels())
    throw tool_error(exit_usage,
                     "--labels: the index was built without labels and cannot keep any");
}

void run_add(const add_choice& choice) {
  start_console(choice.console);
  const interrupt_guard guard;
  feed vectors(choice.feed);
  const auto index = disk_index::open(choice.place, choice.threads, true);
  require_fit(*index, vectors.size(), choice.feed);
  check_feed(choice.feed, index->metric());
  const std::uint32_t first = index->size();
  try {
    vectors.run(*index);
  } catch (const std::exception&) {
    note(fmt::format("{} vectors were added before this:", grouped(vectors.added())));
    index->close();
    throw;
  }
  index->close();
  print_result(feed_report(vectors, first, choice.feed.json));
  stop_if_feed_was_cut(vectors, choice.feed, choice.place);
}

}  // namespace

verb add_add(CLI::App& tool) {
  CLI::App* const command = tool.add_subcommand("add", "Adds the vectors of a file to an index");
  command->footer(
      "Ids go on where the index ends. A file is checked as a whole before anything is added; of "
      "standard input the rows before a damaged one stay. A vector without a label has the label "
      "0.");
  auto choice = std::make_shared<add_choice>();
  command->option_defaults()->always_capture_default();
  add_place_options(*command, choice->place);
  add_feed_options(*command, choice->feed);
  command->add_option("--threads", choice->threads, "Indexing threads (0: one a core)")
      ->check(CLI::Range(0, 1024));
  add_console_options(*command, choice->console);
  return {command,
          [choice] { run_add(*choice); },
          {{"korvex add shop more.fvecs", "prints the ids that the new vectors got"},
           {"korvex add shop base.fvecs --skip 40000", "goes on after an interrupted build"}}};
}

}  // namespace korvex::cli
