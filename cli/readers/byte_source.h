#ifndef KORVEX_CLI_READERS_BYTE_SOURCE_H
#define KORVEX_CLI_READERS_BYTE_SOURCE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

struct gzFile_s;

namespace korvex::cli {

// A file that cannot be read or is not what its header says. The text names the file, what was
// found and what was expected.
class file_error : public std::runtime_error {
 public:
  file_error(const std::string& path, const std::string& text)
      : std::runtime_error(path + ": " + text) {}
};

// The bytes of a regular file from front to back; one that is compressed with gzip is unpacked on
// the way. Every failure throws file_error.
class byte_source {
 public:
  explicit byte_source(const std::string& path);
  ~byte_source();
  byte_source(const byte_source&) = delete;
  byte_source& operator=(const byte_source&) = delete;

  const std::string& path() const { return path_; }
  // Bytes of the content; none for a compressed file, where only the end tells.
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
  struct closer {
    void operator()(gzFile_s* file) const;
  };

  const std::string path_;
  std::uint64_t file_bytes_ = 0;
  bool compressed_ = false;
  std::unique_ptr<gzFile_s, closer> file_;
};

}  // namespace korvex::cli

#endif  // KORVEX_CLI_READERS_BYTE_SOURCE_H
