#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdio>
#include <new>
#include <vector>

#include "cli/console.h"
#include "cli/errors.h"
#include "cli/readers/byte_source.h"
#include "cli/verb.h"
#include "runtime/platform/files.h"

namespace korvex::cli {

namespace {

constexpr verb (*verbs[])(CLI::App&) = {add_eval, add_info, add_verify};

int tell(exit_code code, const char* text) {
  fmt::print(stderr, "korvex: {}\n", text);
  return code;
}

int run_verb(const verb& chosen) {
  try {
    chosen.run();
    return exit_ok;
  } catch (const tool_error& error) {
    return tell(error.code(), error.what());
  } catch (const file_error& error) {
    return tell(exit_input, error.what());
  } catch (const std::bad_alloc&) {
    return tell(exit_failed, "not enough memory");
  } catch (const std::exception& error) {
    return tell(exit_failed, error.what());
  }
}

int run(int argc, char** argv) {
  platform::keep_line_ends();
  CLI::App tool("Nearest neighbours of vectors: the command-line tool of Korvex.", "korvex");
  tool.footer(exit_code_help);
  tool.require_subcommand(1);
  tool.allow_windows_style_options(false);  // a path may begin with a slash everywhere
  std::vector<verb> all;
  for (const auto add : verbs) all.push_back(add(tool));
  try {
    tool.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return tool.exit(error) == 0 ? exit_ok : exit_usage;
  }
  for (const verb& each : all) {
    if (!each.command->parsed()) continue;
    const int code = run_verb(each);
    finish_log();
    return code;
  }
  return exit_usage;
}

}  // namespace

}  // namespace korvex::cli

int main(int argc, char** argv) {
  return korvex::cli::run(argc, argv);
}
