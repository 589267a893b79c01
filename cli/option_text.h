#ifndef KORVEX_CLI_OPTION_TEXT_H
#define KORVEX_CLI_OPTION_TEXT_H

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

// What help, man page and completion say about an option, from its one definition.
namespace korvex::cli {

bool takes_value(const CLI::Option& option);
// The name of its value: FILE, DIR, N, X, WORD; empty for a flag.
std::string value_name(const CLI::Option& option);
// The words that it takes; empty when it takes others too.
std::vector<std::string> accepted_words(const CLI::Option& option);
// Its description with words and default.
std::string description_of(const CLI::Option& option);

// Of a verb, those that are shown.
std::vector<const CLI::Option*> arguments_of(const CLI::App& command);
std::vector<const CLI::Option*> options_of(const CLI::App& command);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_OPTION_TEXT_H
