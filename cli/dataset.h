#ifndef KORVEX_CLI_DATASET_H
#define KORVEX_CLI_DATASET_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cli/readers/vector_file.h"

namespace korvex::cli {

// Vectors in memory, row after row.
struct matrix {
  std::size_t dimension = 0;
  std::size_t rows = 0;
  std::vector<float> values;

  const float* row(std::size_t i) const { return values.data() + i * dimension; }
};

// The first `row_limit` vectors of a file (0: all). Throws file_error, for components that are not
// finite as well: an index refuses them.
matrix load_vectors(const vector_input& input, std::size_t row_limit);

// `count` of the numbers 0 to n - 1, ascending, each choice equally likely; the same for the same
// seed everywhere. All of them when count >= n.
std::vector<std::size_t> choose(std::size_t n, std::size_t count, std::uint64_t seed);

// Refuses components that are not finite among `count` rows; the first of them is row `first_row` of
// the file, as the error says.
void check_finite(const std::string& path, const float* rows, std::size_t count,
                  std::size_t dimension, std::uint64_t first_row);

// The same for rows of zeros, where only directions count.
void check_directions(const std::string& path, const float* rows, std::size_t count,
                      std::size_t dimension, std::uint64_t first_row);

// Keeps the rows that are listed (ascending).
void keep_rows(matrix& vectors, const std::vector<std::size_t>& rows);

// Brings every vector to this Euclidean length; one of length 0 stays.
void scale_to_length(matrix& vectors, double length);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_DATASET_H
