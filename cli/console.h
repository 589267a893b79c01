#ifndef KORVEX_CLI_CONSOLE_H
#define KORVEX_CLI_CONSOLE_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace CLI {
class App;
}

// What the tool writes, and where: results to stdout, all else (log, progress, notes, errors) to
// stderr or a file.
namespace korvex::cli {

// The options that every verb has.
struct console_options {
  std::string log;  // file for the library's log
  bool verbose = false;
  bool quiet = false;
};
void add_console_options(CLI::App& command, console_options& options);

// Starts the library's log: its lines go to the file (created or cut to nothing), to stderr when
// verbose, else nowhere; refusals go to stderr in any case. Failure throws tool_error.
void start_console(const console_options& options);
// Waits until the lines that were logged are written. Does nothing before start_console.
void finish_log();

// One line on stderr, "korvex: " in front; nothing when quiet.
void note(std::string_view text);

// Writes all of it to stdout. Failure throws tool_error, a broken pipe interruption.
void print_result(std::string_view text);
// Writes a file anew. Failure throws tool_error.
void write_result_file(const std::string& path, std::string_view text);

// 1.5 as "2 s", 100 as "1 min 40 s".
std::string duration_text(double seconds);

// One line on stderr that tells how far a phase is, its rate and its remaining time, while stderr is
// a terminal and the tool is not quiet; otherwise nothing is written and no thread runs.
// Threads   the measured work only counts; a thread of its own reads and draws five times a second.
class progress {
 public:
  // A total of 0 is unknown. `done` is called on the drawing thread until the destructor returns.
  progress(std::string label, std::uint64_t total, std::function<std::uint64_t()> done);
  ~progress();
  progress(const progress&) = delete;
  progress& operator=(const progress&) = delete;

 private:
  void draw_until_stopped();
  void draw();

  const std::string label_;
  const std::uint64_t total_;
  const std::function<std::uint64_t()> done_;
  const std::uint64_t began_ns_;
  std::mutex mutex_;  // guards stop_
  std::condition_variable stopped_;
  bool stop_ = false;
  std::thread drawer_;
};

}  // namespace korvex::cli

#endif  // KORVEX_CLI_CONSOLE_H
