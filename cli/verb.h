#ifndef KORVEX_CLI_VERB_H
#define KORVEX_CLI_VERB_H

#include <functional>

namespace CLI {
class App;
}

namespace korvex::cli {

// One verb of the tool: its subcommand with its options, and what runs when the user chose it. A run
// throws tool_error, file_error or std::bad_alloc.
struct verb {
  CLI::App* command;
  std::function<void()> run;
};

// Each stands in a file of its own under verbs/ and is listed in main.cpp.
verb add_eval(CLI::App& tool);
verb add_info(CLI::App& tool);
verb add_verify(CLI::App& tool);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_VERB_H
