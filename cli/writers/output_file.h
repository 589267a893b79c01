#ifndef KORVEX_CLI_WRITERS_OUTPUT_FILE_H
#define KORVEX_CLI_WRITERS_OUTPUT_FILE_H

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

namespace korvex::cli {

// Where results go: standard output for "" and "-", else a file. A file appears whole or not at all:
// it is written under another name beside its place and put there by commit().
// Failure  throws tool_error, a broken pipe interruption
class output_file {
 public:
  explicit output_file(const std::string& path);
  ~output_file();
  output_file(const output_file&) = delete;
  output_file& operator=(const output_file&) = delete;

  const std::string& name() const { return name_; }
  bool is_standard_output() const { return stream_ == stdout; }
  void write(const void* data, std::size_t size);
  void write(std::string_view text) { write(text.data(), text.size()); }
  // What was written reaches its reader now.
  void flush();
  // Whether the front can be written once more: only files.
  bool can_rewind() const { return !partial_.empty(); }
  void rewrite_front(const void* data, std::size_t size);
  void commit();

 private:
  [[noreturn]] void fail();

  const std::string name_;
  std::string target_;
  std::string partial_;  // empty: written in place
  std::FILE* stream_ = nullptr;
};

}  // namespace korvex::cli

#endif  // KORVEX_CLI_WRITERS_OUTPUT_FILE_H
