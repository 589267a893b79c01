#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <memory>

#include "cli/console.h"
#include "cli/errors.h"
#include "cli/index_report.h"
#include "cli/verb.h"
#include "engine/verify.h"

// korvex info: what an index on disk was built with, what it holds and what room it takes.
namespace korvex::cli {

namespace {

struct info_choice {
  std::string directory, name;
  bool json = false;
};

void run_info(const info_choice& choice) {
  verify_options options;
  options.summary = true;
  options.force = true;  // configuration and sizes may be asked of an index in use
  const verify_report report = korvex_verify_directory(choice.directory, choice.name, options);
  require_checked(report);
  if (!report.record_read)
    throw tool_error(exit_input,
                     report.directory + "/" + report.name +
                         ": no configuration can be read: " + report.findings.front().text);
  print_result(choice.json ? index_as_json(report) : index_as_text(report));
}

}  // namespace

verb add_info(CLI::App& tool) {
  CLI::App* const command = tool.add_subcommand(
      "info", "Prints configuration, counts and files of an index on disk, also of one in use");
  auto choice = std::make_shared<info_choice>();
  command
      ->add_option(
          "directory", choice->directory,
          "Directory that the index was opened with, or that of its files, or its index file")
      ->required()
      ->type_name("DIR");
  command->add_option("--name", choice->name, "Name of the index (default: the only one there)");
  command->add_flag("--json", choice->json, "Print JSON in place of text");
  return {command,
          [choice] { run_info(*choice); },
          {{"korvex info shop", "what is in it, and the files"},
           {"korvex info shop --json | jq .counts", "for scripts"}}};
}

}  // namespace korvex::cli
