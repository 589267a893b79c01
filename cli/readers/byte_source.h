#ifndef KORVEX_CLI_READERS_BYTE_SOURCE_H
#define KORVEX_CLI_READERS_BYTE_SOURCE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace korvex::cli {

// A file that cannot be read or is not what its header says. The text names the file, what was
// found and what was expected.
class file_error : public std::runtime_error {
 public:
  file_error(const std::string& path, const std::string& text)
      : std::runtime_error(path + ": " + text) {}
};

// What an input is called that stands for standard input.
inline constexpr const char* standard_input = "-";

// The bytes of an input from front to back; one that is compressed with gzip is unpacked on the way.
// Every failure throws file_error.
class byte_source {
 public:
  // A regular file, or standard input for "-".
  explicit byte_source(const std::string& path);
  // Bytes in memory, which must outlive the source; the name stands in errors.
  byte_source(const std::string& name, std::string_view bytes);
  ~byte_source();
  byte_source(const byte_source&) = delete;
  byte_source& operator=(const byte_source&) = delete;

  const std::string& path() const { return path_; }
  // Bytes of the content; none where only the end tells: compressed, or standard input.
  std::optional<std::uint64_t> size() const;
  // No more bytes than this can come, so that a header's claim can be refused before memory is
  // taken for it.
  std::uint64_t size_limit() const;

  // Fewer than `size` bytes at the end of the content only.
  std::size_t read(void* out, std::size_t size);
  // All of them; `what` names them in the error.
  void read_exactly(void* out, std::size_t size, const char* what);
  // Refuses bytes that follow what the header announced.
  void expect_end();
  // The first bytes of the content, zeros past its end; the position stays at the front.
  // Requirements  nothing was read yet
  std::array<unsigned char, 8> peek();

  [[noreturn]] void fail(const std::string& text) const { throw file_error(path_, text); }

 private:
  class raw_input;  // the bytes as they are stored
  class unpacker;

  void start();
  std::size_t read_content(unsigned char* out, std::size_t size);

  const std::string path_;
  std::unique_ptr<raw_input> raw_;
  std::unique_ptr<unpacker> unpacker_;  // null: not compressed
  std::vector<unsigned char> ahead_;    // read by peek, not yet handed out
};

}  // namespace korvex::cli

#endif  // KORVEX_CLI_READERS_BYTE_SOURCE_H
