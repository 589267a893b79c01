#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <charconv>
#include <memory>

#include "cli/console.h"
#include "cli/disk_index.h"
#include "cli/errors.h"
#include "cli/format.h"
#include "cli/interrupt.h"
#include "cli/readers/vector_file.h"
#include "cli/verb.h"
#include "korvex/engine.h"

// korvex delete: hides vectors from all searches, or shows them again.
namespace korvex::cli {

namespace {

struct delete_choice {
  index_place place;
  std::vector<std::string> ids;
  std::string file;
  bool restore = false;
  console_options console;
};

struct id_range {
  std::uint32_t first, last;
};

std::uint32_t id_in(std::string_view text, std::string_view whole) {
  std::uint32_t id = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
  if (error != std::errc() || end != text.data() + text.size() || text.empty())
    throw tool_error(exit_usage, fmt::format("'{}': expected an id such as 17, or a range of them "
                                             "such as 20-29",
                                             whole));
  return id;
}

id_range range_in(std::string_view text) {
  const std::size_t dash = text.find('-');
  const std::uint32_t first = id_in(text.substr(0, dash), text);
  const std::uint32_t last =
      dash == std::string_view::npos ? first : id_in(text.substr(dash + 1), text);
  if (last < first)
    throw tool_error(exit_usage, fmt::format("'{}': expected the smaller id first", text));
  return {first, last};
}

std::vector<id_range> chosen_ids(const delete_choice& choice) {
  std::vector<id_range> ranges;
  for (const std::string& text : choice.ids) ranges.push_back(range_in(text));
  if (choice.file.empty()) return ranges;
  const auto file = open_label_file(choice.file);
  std::int64_t id = 0;
  while (file->read(1, &id) == 1) {
    if (id < 0 || id > std::int64_t{0xFFFFFFFE})
      throw file_error(choice.file, fmt::format("{}: expected an id", id));
    ranges.push_back({static_cast<std::uint32_t>(id), static_cast<std::uint32_t>(id)});
  }
  return ranges;
}

// Before anything changes.
void require_ids(const disk_index& index, const std::vector<id_range>& ranges) {
  if (ranges.empty()) throw tool_error(exit_usage, "no ids were given: name some, or --ids FILE");
  for (const id_range& range : ranges)
    if (range.last >= index.size())
      throw tool_error(exit_usage, fmt::format("there is no id {}: expected ids below {}",
                                               range.last, index.size()));
}

void run_delete(const delete_choice& choice) {
  start_console(choice.console);
  const interrupt_guard guard;
  const std::vector<id_range> ranges = chosen_ids(choice);
  const auto index = disk_index::open(choice.place, 0, true);
  require_ids(*index, ranges);
  std::uint64_t changed = 0;
  std::uint64_t same = 0;
  for (const id_range& range : ranges) {
    for (std::uint32_t id = range.first; interrupted() == 0; ++id) {
      index->deleted(id) != choice.restore ? ++same : ++changed;
      ::korvex_delete(index->get(), id, choice.restore ? 1 : 0);
      if (id == range.last) break;
    }
  }
  index->close();
  const char* const done = choice.restore ? "restored" : "deleted";
  print_result(fmt::format("{} {}{}\n", done, grouped(changed),
                           same == 0 ? ""
                                     : fmt::format(" ({} already {})", grouped(same),
                                                   choice.restore ? "there" : "deleted")));
  stop_if_interrupted("interrupted; the vectors above were changed");
}

}  // namespace

verb add_delete(CLI::App& tool) {
  CLI::App* const command =
      tool.add_subcommand("delete", "Hides vectors from all searches, or restores them");
  command->footer(
      "The vectors stay in the files, so that --restore can bring them back, and their ids are not "
      "used again. When one of the ids does not exist nothing is changed.");
  auto choice = std::make_shared<delete_choice>();
  add_place_options(*command, choice->place);
  command->add_option("ids", choice->ids, "Ids, or ranges of them such as 20-29")->type_name("ID");
  command
      ->add_option("--ids", choice->file,
                   "Take ids from this file too: text with one a line, or npy of one axis; - for "
                   "standard input")
      ->type_name("FILE");
  command->add_flag("--restore", choice->restore, "Show deleted vectors again");
  add_console_options(*command, choice->console);
  return {command,
          [choice] { run_delete(*choice); },
          {{"korvex delete shop 17 20-29", "eleven vectors"},
           {"korvex delete shop --ids sold.txt", "those in a file"},
           {"korvex delete shop 17 --restore", "one comes back"}}};
}

}  // namespace korvex::cli
