#include "engine/verify.h"

#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <memory>

#include "cli/console.h"
#include "cli/errors.h"
#include "cli/index_report.h"
#include "cli/verb.h"

// korvex verify: whether the files of an index are whole.
namespace korvex::cli {

namespace {

struct verify_choice {
  std::string directory, name;
  verify_options options;
  bool json = false;
};

void run_verify(const verify_choice& choice) {
  const verify_report report =
      korvex_verify_directory(choice.directory, choice.name, choice.options);
  require_checked(report);
  print_result(choice.json ? findings_as_json(report) : findings_as_text(report));
  const std::uint64_t wrong = report.errors + report.warnings;
  if (wrong != 0)
    throw tool_error(exit_findings,
                     fmt::format("{}: {} finding{}", report.name, wrong, wrong == 1 ? "" : "s"));
}

}  // namespace

verb add_verify(CLI::App& tool) {
  CLI::App* const command =
      tool.add_subcommand("verify", "Checks an index on disk without changing it");
  command->footer(
      "Errors are data that are lost or would be read wrong. Warnings are mended by the next "
      "opening, or concern what can be made again. Notes explain, and count as clean.");
  auto choice = std::make_shared<verify_choice>();
  command
      ->add_option(
          "directory", choice->directory,
          "Directory that the index was opened with, or that of its files, or its index file")
      ->required()
      ->type_name("DIR");
  command->add_option("--name", choice->name, "Name of the index (default: the only one there)");
  command->add_flag("--json", choice->json, "Print JSON in place of text");
  command->add_flag("--force", choice->options.force,
                    "Read an index that is in use; what changes meanwhile may look like damage");
  return {command,
          [choice] { run_verify(*choice); },
          {{"korvex verify shop && rsync -a shop backup/", "a copy of what is whole"}}};
}

}  // namespace korvex::cli
