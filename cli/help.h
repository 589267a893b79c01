#ifndef KORVEX_CLI_HELP_H
#define KORVEX_CLI_HELP_H

#include <string>
#include <string_view>
#include <vector>

#include "cli/verb.h"

namespace korvex::cli {

// Text in lines of at most `width` characters, each but the first with `indent` blanks in front.
std::string wrapped(std::string_view text, std::size_t width, std::size_t indent);

// Gives the tool and its verbs the layout of their help: options with wrapped descriptions, then
// notes, examples and exit codes.
void lay_out_help(CLI::App& tool, const std::vector<verb>& verbs);

// What --version prints: version, build, kernels in use.
std::string version_text();

}  // namespace korvex::cli

#endif  // KORVEX_CLI_HELP_H
