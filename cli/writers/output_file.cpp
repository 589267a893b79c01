#include "cli/writers/output_file.h"

#include <cerrno>
#include <filesystem>

#include "cli/errors.h"
#include "cli/interrupt.h"
#include "runtime/platform/files.h"
#include "runtime/platform/threads.h"

namespace korvex::cli {

namespace {

bool names_standard_output(const std::string& path) {
  return path.empty() || path == "-";
}

// Devices and pipes are written in place.
bool can_be_replaced(const std::string& path) {
  const platform::file_status status = platform::status_of(path.c_str());
  return !status.exists || status.regular;
}

}  // namespace

output_file::output_file(const std::string& path)
    : name_(names_standard_output(path) ? "standard output" : path), target_(path) {
  if (names_standard_output(path)) {
    stream_ = stdout;
    return;
  }
  if (can_be_replaced(path)) partial_ = path + ".part" + std::to_string(platform::process_id());
  stream_ = std::fopen(partial_.empty() ? path.c_str() : partial_.c_str(), "wb");
  if (stream_ == nullptr) {
    partial_.clear();
    fail();
  }
}

output_file::~output_file() {
  if (stream_ != nullptr && stream_ != stdout) std::fclose(stream_);
  if (!partial_.empty()) platform::remove_file(partial_.c_str());
}

void output_file::write(const void* data, std::size_t size) {
  if (std::fwrite(data, 1, size, stream_) != size) fail();
}

void output_file::flush() {
  if (std::fflush(stream_) != 0) fail();
}

void output_file::rewrite_front(const void* data, std::size_t size) {
  if (std::fseek(stream_, 0, SEEK_SET) != 0) fail();
  write(data, size);
  if (std::fseek(stream_, 0, SEEK_END) != 0) fail();
}

void output_file::commit() {
  flush();
  if (is_standard_output()) return;
  const bool closed = std::fclose(stream_) == 0;
  stream_ = nullptr;
  if (!closed ||
      (!partial_.empty() && platform::rename_file(partial_.c_str(), target_.c_str()) != 0))
    fail();
  partial_.clear();
}

void output_file::fail() {
  const int error = errno;
  if (error == EPIPE) end_by_broken_pipe();
  throw tool_error(exit_output, name_ + ": cannot be written: " + platform::error_text(error));
}

}  // namespace korvex::cli
