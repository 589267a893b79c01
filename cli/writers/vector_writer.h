#ifndef KORVEX_CLI_WRITERS_VECTOR_WRITER_H
#define KORVEX_CLI_WRITERS_VECTOR_WRITER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cli/readers/vector_format.h"
#include "cli/writers/output_file.h"

namespace korvex::cli {

// Writes rows of one dimension in one of the formats fvecs, bvecs, ivecs, fbin, u8bin, npy, text.
// Numbers must fit the format's elements; fractions are rounded to 32 bits in fvecs, fbin and npy.
// Failure  throws tool_error (a number that does not fit, an output that cannot be written)
class vector_writer {
 public:
  // The numbers of npy and text are of `element`; the other formats have one of their own. `rows`
  // may be 0 (not known) where it stands in no header, or where the output is a file.
  vector_writer(const std::string& path, vector_format format, element_type element,
                std::size_t dimension, std::uint64_t rows);

  void write(const double* rows, std::size_t count);
  // Only now a file is in its place.
  void commit();

  static bool can_write(vector_format format);

 private:
  void put_header(std::uint64_t rows);
  void put(double value);
  template <typename Element>
  void put_as(double value);
  void put_text(double value, std::size_t column);
  [[noreturn]] void refuse(double value) const;

  output_file out_;
  const vector_format format_;
  const element_type element_;
  const std::size_t dimension_;
  const std::uint64_t announced_rows_;
  std::uint64_t rows_ = 0;
  std::string header_;
  std::string buffer_;
};

// The format of an output: that of the name given, else by the path's ending; refuses what cannot be
// written.
vector_format output_format(const std::string& path, const std::string& format);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_WRITERS_VECTOR_WRITER_H
