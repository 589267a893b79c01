#ifndef KORVEX_CLI_INDEX_TRIAL_H
#define KORVEX_CLI_INDEX_TRIAL_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "cli/console.h"
#include "cli/dataset.h"
#include "cli/disk_index.h"
#include "cli/index_truth.h"
#include "cli/interrupt.h"
#include "cli/query_batch.h"

namespace korvex::cli {

// What every measurement of an index on disk is asked with.
struct trial_options {
  index_place place;
  vector_input queries{"", vector_format::unknown, "test"};
  std::size_t query_rows = 0;  // 0: all
  std::uint64_t seed = 1;
  int k = 10;
  int threads = 0;  // 0: one a core
  bool json = false;
  console_options console;
};

// The positional DIR and FILE; the others.
void add_trial_input(CLI::App& command, trial_options& options);
void add_trial_options(CLI::App& command, trial_options& options);

// An index on disk under measurement: open, with its queries. Signals stop it between two calls.
class index_trial {
  const interrupt_guard guard_;  // outlives the index

 public:
  // Starts the console too. Throws as opening and reading do.
  explicit index_trial(const trial_options& given);

  // Exact answers to all queries, by brute force; afterwards `truth` holds them.
  void find_truth();
  // Asks the queries from `first` to `last` on all threads at one radius. Queries a second.
  double ask(int radius, std::size_t first, std::size_t last, answer_rows& answers) const;

  trial_options options;  // `threads` is a real number
  std::unique_ptr<disk_index> index;
  matrix queries;
  std::optional<index_truth> truth;
};

}  // namespace korvex::cli

#endif  // KORVEX_CLI_INDEX_TRIAL_H
