#ifndef KORVEX_CLI_CONSOLE_H
#define KORVEX_CLI_CONSOLE_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

// What the tool writes, and where: results to stdout, all else (log, progress, errors) to stderr or
// a file.
namespace korvex::cli {

// Starts the library's log with its lines going to a file (created or cut to nothing), or to stderr
// when the path is empty. Failure throws tool_error.
void start_log(const std::string& path);
// Waits until the lines that were logged are written. Does nothing before start_log.
void finish_log();

// Writes all of it to stdout. Failure throws tool_error.
void print_result(std::string_view text);
// Writes a file anew. Failure throws tool_error.
void write_result_file(const std::string& path, std::string_view text);

// One line on stderr that tells how far a phase is, its rate and its remaining time, while stderr is
// a terminal; without one, nothing is written and no thread runs.
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
