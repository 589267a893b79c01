#include "cli/help.h"

#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>

#include "cli/errors.h"
#include "cli/option_text.h"
#include "engine/startup.h"
#include "math/kernels.h"
#include "runtime/log.h"

namespace korvex::cli {

namespace {

constexpr std::size_t page_columns = 80;
constexpr std::size_t option_columns = 28;

class help_layout final : public CLI::Formatter {
 public:
  help_layout() {
    column_width(option_columns);
    label("REQUIRED", "");
    label("Positionals", "Arguments");
    label("SUBCOMMAND", "VERB");
  }
  std::string make_option(const CLI::Option* option, bool is_positional) const override {
    std::string left = "  " + make_option_name(option, is_positional);
    if (!is_positional && takes_value(*option)) left += " " + value_name(*option);
    return aligned(left, description_of(*option));
  }
  std::string make_subcommand(const CLI::App* sub) const override {
    return aligned("  " + sub->get_name(), sub->get_description());
  }
  std::string make_footer(const CLI::App* app) const override { return app->get_footer() + "\n"; }

 private:
  static std::string aligned(std::string left, const std::string& right) {
    left += left.size() + 2 > option_columns ? "\n" + std::string(option_columns, ' ')
                                             : std::string(option_columns - left.size(), ' ');
    return left + wrapped(right, page_columns - option_columns, option_columns) + "\n";
  }
};

std::string examples_text(const std::vector<verb_example>& examples) {
  std::string text = examples.empty() ? "" : "\nExamples:\n";
  for (const verb_example& each : examples)
    text += fmt::format("  {}\n      {}\n", each.command, each.effect);
  return text;
}

std::string exit_code_text() {
  std::string text = "Exit codes:\n";
  for (const exit_code_entry& each : exit_codes)
    text += fmt::format("  {:>3}  {}\n", each.code, each.meaning);
  return text;
}

}  // namespace

std::string wrapped(std::string_view text, std::size_t width, std::size_t indent) {
  std::string lines;
  std::size_t column = 0;
  while (!text.empty()) {
    const std::size_t blank = std::min(text.find_first_of(" \n"), text.size());
    const std::string_view word = text.substr(0, blank);
    const bool breaks = blank < text.size() && text[blank] == '\n';
    if (column != 0 && column + 1 + word.size() > width) {
      lines += "\n" + std::string(indent, ' ');
      column = 0;
    }
    if (column != 0 && !word.empty()) lines += ' ';
    lines += word;
    column += word.size() + (column != 0 ? 1 : 0);
    text.remove_prefix(std::min(blank + 1, text.size()));
    if (!breaks || text.empty()) continue;
    lines += "\n" + std::string(indent, ' ');
    column = 0;
  }
  return lines;
}

void lay_out_help(CLI::App& tool, const std::vector<verb>& verbs) {
  const auto layout = std::make_shared<help_layout>();
  tool.formatter(layout);
  tool.footer(
      "korvex VERB --help explains a verb with examples. Results go to standard output, "
      "all else to\nstandard error.\n\n" +
      exit_code_text());
  for (const verb& each : verbs) {
    each.command->formatter(layout);
    each.command->group("Verbs");
    each.command->footer(wrapped(each.command->get_footer(), page_columns, 0) + "\n" +
                         examples_text(each.examples) + "\nkorvex --help lists the exit codes.");
  }
}

std::string version_text() {
  korvex_process_start();
  log_setfd(0);
#ifdef KORVEX_HAVE_HDF5
  constexpr const char* hdf5 = "yes";
#else
  constexpr const char* hdf5 = "no";
#endif
  return fmt::format("korvex {}\nbuild {}, {}, HDF5 {}\nkernels {}", KORVEX_VERSION_TEXT,
                     KORVEX_BUILD_TEXT, KORVEX_COMPILER_TEXT, hdf5, chosen_kernels());
}

}  // namespace korvex::cli
