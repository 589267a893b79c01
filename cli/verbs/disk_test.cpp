#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <atomic>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "cli/console.h"
#include "cli/errors.h"
#include "cli/format.h"
#include "cli/interrupt.h"
#include "cli/verb.h"
#include "runtime/disk_probe.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/files.h"

// korvex disk-test: whether a drive is fast enough for an index that is larger than memory.
namespace korvex::cli {

namespace {

constexpr double enough_reads = 50'000;  // where the library's own probe stops warning
constexpr double enough_writes = 100'000;
constexpr std::uint64_t poll_usec = 20'000;

struct disk_choice {
  std::string directory;
  unsigned block_bytes = 4'096, file_bytes = 100u << 20, seconds = 10;
  bool force = false, json = false;
  console_options console;
};

struct disk_outcome {
  std::atomic<bool> over{false};
  int result = -1;
  disk_iops_s speed{-1, -1};
};

// The probe cannot be stopped: after a signal its thread is left to the end of the process.
std::shared_ptr<const disk_outcome> probe(const disk_choice& choice) {
  auto outcome = std::make_shared<disk_outcome>();
  const std::uint64_t began = platform::monotonic_ns();
  const progress line("seconds", 2 * std::uint64_t{choice.seconds},
                      [began] { return (platform::monotonic_ns() - began) / 1'000'000'000; });
  std::thread([choice, outcome] {
    outcome->result =
        disk_perf_test(choice.directory.c_str(), choice.block_bytes, choice.file_bytes,
                       choice.seconds, choice.force ? 1 : 0, &outcome->speed);
    outcome->over = true;
  }).detach();
  while (!outcome->over && interrupted() == 0) platform::sleep_usec(poll_usec);
  if (outcome->over) return outcome;
  platform::remove_file((choice.directory + "/iops_test.inprogress").c_str());
  stop_if_interrupted("interrupted; nothing was measured");
  return outcome;
}

std::string report(const disk_choice& choice, const disk_outcome& outcome) {
  const bool fast = outcome.speed.read >= enough_reads && outcome.speed.write >= enough_writes;
  if (choice.json) {
    const nlohmann::ordered_json all = {{"reads_per_second", outcome.speed.read},
                                        {"writes_per_second", outcome.speed.write},
                                        {"measured_now", outcome.result == 0},
                                        {"fast_enough", fast}};
    return all.dump() + "\n";
  }
  const auto line = [](const char* what, double speed, double enough) {
    return fmt::format("{:<7}{:>12} a second, {} {}\n", what,
                       grouped(static_cast<std::uint64_t>(speed)),
                       speed >= enough ? "enough: at least" : "slow: below",
                       grouped(static_cast<std::uint64_t>(enough)));
  };
  return line("reads", outcome.speed.read, enough_reads) +
         line("writes", outcome.speed.write, enough_writes) +
         (outcome.result == 1 ? "measured earlier; --force measures again\n" : "") +
         (fast ? "" : "An index that is larger than memory will wait for this drive.\n");
}

void run_disk_test(const disk_choice& choice) {
  start_console(choice.console);
  const interrupt_guard guard;
  if (!platform::status_of(choice.directory.c_str()).directory)
    throw tool_error(exit_input, choice.directory + ": there is no such directory");
  const auto outcome = probe(choice);
  if (outcome->result < 0)
    throw tool_error(exit_failed, choice.directory + ": the drive could not be measured");
  print_result(report(choice, *outcome));
}

}  // namespace

verb add_disk_test(CLI::App& tool) {
  CLI::App* const command = tool.add_subcommand(
      "disk-test", "Measures how many random reads and writes a drive does in a second");
  command->footer(
      "One block at a time, at random places of a file in the directory and past the system's "
      "cache: first writes, then reads, each for --seconds. The figures are kept in "
      "iops_result.txt in the directory and shown by later calls; the file that was measured on is "
      "removed.");
  auto choice = std::make_shared<disk_choice>();
  command->option_defaults()->always_capture_default();
  command->add_option("directory", choice->directory, "Directory on the drive")
      ->required()
      ->type_name("DIR");
  command->add_option("--block", choice->block_bytes, "Bytes of a block, a power of two")
      ->check(CLI::Range(512, 1 << 24));
  command
      ->add_option("--file", choice->file_bytes,
                   "Bytes of the file; at least 1,024 blocks are used")
      ->check(CLI::Range(1u, 0xFFFFFFFFu));
  command->add_option("--seconds", choice->seconds, "Seconds for each half of the test")
      ->check(CLI::Range(1, 1'000));
  command->add_flag("--force", choice->force, "Measure again");
  command->add_flag("--json", choice->json, "Print JSON in place of text");
  add_console_options(*command, choice->console);
  return {
      command,
      [choice] { run_disk_test(*choice); },
      {{"korvex disk-test /srv/indexes", "takes 20 seconds the first time"},
       {"korvex disk-test . --seconds 2 --force --json | jq .reads_per_second", "a shorter look"}}};
}

}  // namespace korvex::cli
