#ifndef KORVEX_CLI_READERS_VECTOR_FILE_H
#define KORVEX_CLI_READERS_VECTOR_FILE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/readers/byte_source.h"

namespace korvex::cli {

// What an index takes.
inline constexpr std::uint64_t largest_dimension = 1u << 20;
inline constexpr std::uint64_t most_rows = 0xFFFFFFFEu;

// A file of vectors of one dimension, read from front to back as floats. Every failure throws
// file_error. Files are untrusted: a header is believed only as far as the file's length allows.
class vector_file {
 public:
  virtual ~vector_file() = default;
  virtual std::size_t dimension() const = 0;
  // Empty when only the end of the file tells.
  virtual std::optional<std::uint64_t> rows() const = 0;
  // The next rows, row after row; fewer than `count` at the end only, where the file's length is
  // checked once more.
  virtual std::size_t read(std::size_t count, float* out) = 0;
};

// fvecs, bvecs, idx or npy, each plain or compressed with gzip. The name's ending decides (.fvecs,
// .bvecs, .npy, in front of .gz as well), else the first bytes (npy, idx).
std::unique_ptr<vector_file> open_vector_file(const std::string& path);

// Rows of ids of one width, row after row: an ivecs file, plain or compressed.
struct id_rows {
  std::size_t rows = 0;
  std::size_t width = 0;
  std::vector<std::uint32_t> ids;
};
// The first `row_limit` rows (fewer when the file ends). A negative id is refused.
id_rows read_id_file(const std::string& path, std::size_t row_limit);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_READERS_VECTOR_FILE_H
