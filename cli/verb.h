#ifndef KORVEX_CLI_VERB_H
#define KORVEX_CLI_VERB_H

#include <functional>
#include <vector>

namespace CLI {
class App;
}

namespace korvex::cli {

struct verb_example {
  const char* command;
  const char* effect;
};

// One verb of the tool: its subcommand with its options, and what runs when the user chose it. A run
// throws tool_error, file_error, interruption or std::bad_alloc. The subcommand's footer holds notes;
// help and the man page put examples and exit codes behind them.
struct verb {
  CLI::App* command;
  std::function<void()> run;
  std::vector<verb_example> examples{};
};

// Each stands in a file of its own under verbs/ and is listed in main.cpp.
verb add_build(CLI::App& tool);
verb add_add(CLI::App& tool);
verb add_search(CLI::App& tool);
verb add_delete(CLI::App& tool);
verb add_info(CLI::App& tool);
verb add_verify(CLI::App& tool);
verb add_eval(CLI::App& tool);
verb add_tune(CLI::App& tool);
verb add_bench(CLI::App& tool);
verb add_groundtruth(CLI::App& tool);
verb add_convert(CLI::App& tool);
verb add_estimate(CLI::App& tool);
verb add_disk_test(CLI::App& tool);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_VERB_H
