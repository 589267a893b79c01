#ifndef KORVEX_CLI_READERS_VECTOR_FILE_H
#define KORVEX_CLI_READERS_VECTOR_FILE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/readers/byte_source.h"
#include "cli/readers/vector_format.h"

namespace korvex::cli {

// What an index takes.
inline constexpr std::uint64_t largest_dimension = 1u << 20;
inline constexpr std::uint64_t most_rows = 0xFFFFFFFEu;

// A file of vectors of one dimension, read from front to back. Every failure throws file_error.
// Files are untrusted: a header is believed only as far as the file's length allows.
class vector_file {
 public:
  virtual ~vector_file() = default;
  virtual std::size_t dimension() const = 0;
  // Empty when only the end of the file tells.
  virtual std::optional<std::uint64_t> rows() const = 0;
  virtual element_type element() const = 0;
  // The next rows, row after row; fewer than `count` at the end only, where the file's length is
  // checked once more. As double, 32-bit numbers keep their value; as std::int64_t, whole ones do.
  virtual std::size_t read(std::size_t count, float* out) = 0;
  virtual std::size_t read(std::size_t count, double* out) = 0;
  virtual std::size_t read(std::size_t count, std::int64_t* out) = 0;
};

// Which vectors are meant.
struct vector_input {
  std::string path;  // "-": standard input; FILE.hdf5:NAME: this data set of it
  vector_format format = vector_format::unknown;  // where neither name nor first bytes tell
  std::string dataset = "train";                  // of an HDF5 file, unless the path names one
};

// The name's ending decides, then the given format, then the first bytes (npy, idx). All but HDF5
// may be compressed with gzip.
std::unique_ptr<vector_file> open_vector_file(const vector_input& input);
// The same over bytes in memory; not for HDF5.
std::unique_ptr<vector_file> open_vector_bytes(const std::string& name, std::string_view bytes,
                                               vector_format format);

// Rows of ids of one width, row after row.
struct id_rows {
  std::size_t rows = 0;
  std::size_t width = 0;
  std::vector<std::uint32_t> ids;
};
// The first `row_limit` rows (fewer when the file ends) of a file of whole numbers: ivecs, or any
// other format that holds them. Numbers that are no ids are refused.
id_rows read_id_file(const vector_input& input, std::size_t row_limit);

// One 64-bit label a vector, from front to back: npy or idx of whole numbers with one axis, or text,
// a number a line.
std::unique_ptr<vector_file> open_label_file(const std::string& path);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_READERS_VECTOR_FILE_H
