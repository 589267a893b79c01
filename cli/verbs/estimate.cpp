#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <memory>
#include <nlohmann/json.hpp>

#include "cli/console.h"
#include "cli/errors.h"
#include "cli/format.h"
#include "cli/readers/vector_file.h"
#include "cli/verb.h"
#include "korvex/engine.h"

// korvex estimate: what room an index will take, before it is built.
namespace korvex::cli {

namespace {

struct estimate_choice {
  std::uint64_t vectors = 0, dimension = 0;
  int constellation = 16;
  bool labels = false, json = false;
};

korvex_estimate_s sizes_of(const estimate_choice& choice, bool on_disk) {
  korvex_description_s description{};
  description.size = sizeof description;
  description.dimension = static_cast<std::uint32_t>(choice.dimension);
  description.labels = choice.labels ? 1 : 0;
  description.constellation = static_cast<std::uint32_t>(choice.constellation);
  description.on_disk = on_disk ? 1 : 0;
  korvex_estimate_s sizes{};
  if (::korvex_estimate(&description, choice.vectors, &sizes) != 0)
    throw tool_error(exit_failed, "no estimate for these numbers");
  return sizes;
}

std::uint64_t bytes_a_vector(std::uint64_t bytes, const estimate_choice& choice) {
  return bytes / choice.vectors;
}

void run_estimate(const estimate_choice& choice) {
  const korvex_estimate_s disk = sizes_of(choice, true);
  const korvex_estimate_s memory = sizes_of(choice, false);
  if (choice.json) {
    const nlohmann::ordered_json all = {
        {"vectors", choice.vectors},
        {"dimension", choice.dimension},
        {"disk_bytes", disk.disk_bytes},
        {"cached_bytes", disk.memory_bytes},
        {"memory_bytes", memory.memory_bytes},
        {"bytes_per_vector", bytes_a_vector(memory.memory_bytes, choice)}};
    print_result(all.dump(2) + "\n");
    return;
  }
  std::string text =
      fmt::format("{} vectors of {} dimensions\n{:>20} {:>10} {:>16}\n", grouped(choice.vectors),
                  choice.dimension, "bytes", "GB", "bytes a vector");
  const auto line = [&](std::uint64_t bytes, const char* what) {
    text +=
        fmt::format("{:>20} {:>10.2f} {:>16}  {}\n", grouped(bytes),
                    static_cast<double>(bytes) / 1e9, grouped(bytes_a_vector(bytes, choice)), what);
  };
  line(disk.disk_bytes, "on disk");
  line(disk.memory_bytes, "of memory, when all of an index on disk is cached");
  line(memory.memory_bytes, "of memory, for an index in memory");
  print_result(text);
}

}  // namespace

verb add_estimate(CLI::App& tool) {
  CLI::App* const command = tool.add_subcommand(
      "estimate", "Tells what memory and disk an index will take, before it is built");
  command->footer(
      "An index on disk works with less memory than holds all of it, the slower the less; the "
      "graph and the vectors that searches pass through most should fit. GB are 10^9 bytes.");
  auto choice = std::make_shared<estimate_choice>();
  command->option_defaults()->always_capture_default();
  command->add_option("vectors", choice->vectors, "Number of vectors")
      ->required()
      ->type_name("N")
      ->check(CLI::Range(std::uint64_t{1}, most_rows));
  command->add_option("dimension", choice->dimension, "Dimension of the vectors")
      ->required()
      ->type_name("DIMENSION")
      ->check(CLI::Range(std::uint64_t{1}, largest_dimension));
  command->add_option("--constellation", choice->constellation, "As for korvex build")
      ->check(CLI::Range(1, 1024));
  command->add_flag("--labels", choice->labels, "With a label for each vector");
  command->add_flag("--json", choice->json, "Print JSON in place of text");
  return {
      command,
      [choice] { run_estimate(*choice); },
      {{"korvex estimate 10000000 768", "ten million vectors of 768 dimensions"},
       {"korvex estimate 1000000 128 --constellation 32 --json | jq .disk_bytes", "for scripts"}}};
}

}  // namespace korvex::cli
