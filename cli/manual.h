#ifndef KORVEX_CLI_MANUAL_H
#define KORVEX_CLI_MANUAL_H

#include <string>
#include <vector>

#include "cli/verb.h"

// What is made from the definitions of the verbs besides --help.
namespace korvex::cli {

// The page korvex(1) in the man macros.
std::string man_page(const CLI::App& tool, const std::vector<verb>& verbs);
// A script for bash that completes verbs, options, the words that an option takes, and files.
std::string bash_completion(const std::vector<verb>& verbs);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_MANUAL_H
