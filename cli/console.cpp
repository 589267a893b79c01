#include "cli/console.h"

#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "cli/errors.h"
#include "cli/format.h"
#include "cli/interrupt.h"
#include "engine/startup.h"
#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/files.h"

namespace korvex::cli {

namespace {

constexpr int stderr_fd = 2;
constexpr auto redraw_interval = std::chrono::milliseconds(200);
constexpr const char* clear_line = "\r\x1b[K";

std::atomic<bool> quiet{false};

// Lines by which the library refuses something are for the user, wherever the rest of the log goes.
void show_refusals(int, const char*, const char* message, const char*) {
  const std::string_view line(message);
  const std::size_t text = line.find("): ");  // behind time and thread
  if (!line.starts_with("**CRITICAL**") || text == std::string_view::npos) return;
  fmt::print(stderr, "korvex: {}", line.substr(text + 3));
}

void write_all(std::FILE* stream, std::string_view text, const std::string& name) {
  const bool written = std::fwrite(text.data(), 1, text.size(), stream) == text.size();
  if (written && std::fflush(stream) == 0) return;
  if (errno == EPIPE) end_by_broken_pipe();
  throw tool_error(exit_output, name + ": cannot be written: " + platform::error_text(errno));
}

}  // namespace

void add_console_options(CLI::App& command, console_options& options) {
  command.add_option("--log", options.log, "Write the library's log to this file")
      ->type_name("FILE")
      ->group("Messages");
  command.add_flag("-v,--verbose", options.verbose, "Show the library's log on stderr")
      ->group("Messages");
  command.add_flag("-q,--quiet", options.quiet, "No progress and no notes on stderr, only errors")
      ->group("Messages");
}

void start_console(const console_options& options) {
  quiet = options.quiet;
  korvex_process_start();
  int fd = options.verbose ? stderr_fd : 0;
  if (!options.log.empty())
    fd = platform::open_file(options.log.c_str(), platform::open_mode::truncate);
  if (fd < 0)
    throw tool_error(exit_output,
                     options.log + ": cannot be written: " + platform::error_text(errno));
  log_setfd(fd);
  if (fd != stderr_fd) log_set_callback(show_refusals);
}

void finish_log() {
  log_wait_empty();
  log_flush();
}

void note(std::string_view text) {
  if (!quiet) fmt::print(stderr, "korvex: {}\n", text);
}

void print_result(std::string_view text) {
  write_all(stdout, text, "standard output");
}

void write_result_file(const std::string& path, std::string_view text) {
  const int fd = platform::open_file(path.c_str(), platform::open_mode::truncate);
  const bool written = fd >= 0 && platform::write_all(fd, text.data(), text.size());
  const int error = errno;
  if (fd >= 0) platform::close_file(fd);
  if (!written)
    throw tool_error(exit_output, path + ": cannot be written: " + platform::error_text(error));
}

std::string duration_text(double seconds) {
  const auto whole = static_cast<std::uint64_t>(std::ceil(seconds));
  if (whole < 60) return fmt::format("{} s", whole);
  if (whole < 3600) return fmt::format("{} min {:02} s", whole / 60, whole % 60);
  return fmt::format("{} h {:02} min", whole / 3600, whole / 60 % 60);
}

progress::progress(std::string label, std::uint64_t total, std::function<std::uint64_t()> done)
    : label_(std::move(label)),
      total_(total),
      done_(std::move(done)),
      began_ns_(platform::monotonic_ns()) {
  if (!quiet && platform::is_terminal(stderr))
    drawer_ = std::thread(&progress::draw_until_stopped, this);
}

progress::~progress() {
  if (!drawer_.joinable()) return;
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  stopped_.notify_one();
  drawer_.join();
}

void progress::draw_until_stopped() {
  std::unique_lock lock(mutex_);
  while (!stopped_.wait_for(lock, redraw_interval, [this] { return stop_; })) draw();
  fmt::print(stderr, "{}", clear_line);
}

// The cursor goes back to the front, so that a line of the log replaces this one.
void progress::draw() {
  const std::uint64_t done = done_();
  const double seconds = static_cast<double>(platform::monotonic_ns() - began_ns_) / 1e9;
  const double rate = static_cast<double>(done) / seconds;
  const double left = static_cast<double>(total_ - std::min(done, total_));
  std::string text = label_ + ": " + grouped(done);
  if (total_ != 0) text += " of " + grouped(total_);
  text += fmt::format(", {}/s", grouped(static_cast<std::uint64_t>(rate)));
  if (left > 0 && done > 0) text += ", " + duration_text(left / rate) + " left";
  fmt::print(stderr, "{}{}\r", clear_line, text);
  std::fflush(stderr);
}

}  // namespace korvex::cli
