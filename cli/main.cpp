#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdio>
#include <new>
#include <vector>

#include "cli/console.h"
#include "cli/errors.h"
#include "cli/help.h"
#include "cli/interrupt.h"
#include "cli/manual.h"
#include "cli/readers/byte_source.h"
#include "cli/verb.h"
#include "runtime/platform/files.h"

namespace korvex::cli {

namespace {

constexpr verb (*verbs[])(CLI::App&) = {
    add_build, add_add,   add_search,      add_delete,  add_info,     add_verify,   add_eval,
    add_tune,  add_bench, add_groundtruth, add_convert, add_estimate, add_disk_test};

int tell(exit_code code, const char* text) {
  fmt::print(stderr, "korvex: {}\n", text);
  return code;
}

int run_verb(const verb& chosen) {
  try {
    chosen.run();
    return exit_ok;
  } catch (const interruption& stop) {
    finish_log();
    if (stop.what()[0] != '\0') tell(exit_failed, stop.what());
    end_by_signal(stop.signal());
  } catch (const tool_error& error) {
    return tell(error.code(), error.what());
  } catch (const file_error& error) {
    if (interrupted() != 0) {  // the signal cut a read short
      tell(exit_failed, "interrupted");
      end_by_signal(interrupted());
    }
    return tell(exit_input, error.what());
  } catch (const std::bad_alloc&) {
    return tell(exit_failed, "not enough memory");
  } catch (const std::exception& error) {
    return tell(exit_failed, error.what());
  }
}

// The page and the completion come from the definitions of --help; shown to nobody.
std::vector<verb> add_generator(CLI::App& tool, const std::vector<verb>& all) {
  CLI::App* const command = tool.add_subcommand("generate", "Prints the man page or completion");
  command->group("");
  command->require_subcommand(1);
  return {{command->add_subcommand("man", "The page korvex(1)"),
           [&tool, &all] { print_result(man_page(tool, all)); }},
          {command->add_subcommand("bash", "Completion for bash"),
           [&all] { print_result(bash_completion(all)); }}};
}

int run_chosen(const std::vector<verb>& choices) {
  for (const verb& each : choices) {
    if (!each.command->parsed()) continue;
    const int code = run_verb(each);
    finish_log();
    return code;
  }
  return exit_ok;
}

int run(int argc, char** argv) {
  platform::keep_line_ends();
  report_broken_pipes();
  CLI::App tool(
      "Nearest neighbours of vectors: indexes on disk, built, searched and measured from "
      "the shell.",
      "korvex");
  tool.require_subcommand(1);
  tool.allow_windows_style_options(false);  // a path may begin with a slash everywhere
  tool.set_version_flag("--version", version_text, "Print version, build and kernels in use");
  std::vector<verb> all;
  for (const auto add : verbs) all.push_back(add(tool));
  const std::vector<verb> generators = add_generator(tool, all);
  lay_out_help(tool, all);
  try {
    tool.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return tool.exit(error) == 0 ? exit_ok : exit_usage;
  }
  const bool generates = tool.get_subcommand("generate")->parsed();
  return run_chosen(generates ? generators : all);
}

}  // namespace

}  // namespace korvex::cli

int main(int argc, char** argv) {
  return korvex::cli::run(argc, argv);
}
