#ifndef KORVEX_CLI_FEED_H
#define KORVEX_CLI_FEED_H

#include <cstdint>
#include <string>

#include "cli/disk_index.h"
#include "cli/readers/vector_file.h"

namespace CLI {
class App;
}

namespace korvex::cli {

// Which vectors go into an index.
struct feed_options {
  vector_input vectors;
  std::string format = "auto";
  std::string labels;      // a file of them; empty: none
  std::uint64_t skip = 0;  // rows at the front that are left out
  std::uint64_t rows = 0;  // at most so many after them; 0: all
  bool json = false;
};
void add_feed_options(CLI::App& command, feed_options& options);

// What the file holds and the options leave of it; 0 rows: only its end tells.
struct feed_size {
  std::size_t dimension = 0;
  std::uint64_t rows = 0;
};

// Looks through the whole input before anything is changed, where it is a file: throws file_error
// for damage, for components that are not finite, for vectors without direction where the metric
// needs one, and for labels that are not one for each row. Of standard input it sees the header
// only, through the feed itself.
void check_feed(const feed_options& options, const metric_choice& metric);

// The vectors of the options on their way into an index, block by block.
class feed {
 public:
  explicit feed(const feed_options& options);

  feed_size size() const;
  // Adds them and waits until they are linked, to the end or to the first signal.
  // Requirements  an interrupt_guard
  // Failure       throws; the rows before are added and linked
  void run(disk_index& index);

  std::uint64_t added() const { return added_; }
  double seconds() const { return seconds_; }

 private:
  void add_block(disk_index& index, const float* rows, std::size_t count);
  void let_linking_follow(const disk_index& index) const;

  const feed_options options_;
  std::unique_ptr<vector_file> file_;
  std::unique_ptr<vector_file> labels_;  // null: none
  std::uint64_t next_row_ = 0;           // of the file
  std::uint64_t added_ = 0;
  double seconds_ = 0;
};

// What `build` and `add` print: text, or JSON. Ids begin with `first`.
std::string feed_report(const feed& fed, std::uint32_t first, bool json);
// Ends the verb after a signal with how far it got.
void stop_if_feed_was_cut(const feed& fed, const feed_options& options, const index_place& place);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_FEED_H
