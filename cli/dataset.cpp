#include "cli/dataset.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <new>
#include <random>

#include "cli/console.h"
#include "cli/readers/vector_file.h"

namespace korvex::cli {

namespace {

constexpr std::size_t chunk_floats = 1u << 20;

void read_all(vector_file& file, const std::string& path, std::size_t row_limit, matrix& vectors,
              std::atomic<std::uint64_t>& rows_read) {
  const std::size_t chunk = std::max<std::size_t>(chunk_floats / vectors.dimension, 1);
  while (vectors.rows < row_limit) {
    const std::size_t wanted = std::min(chunk, row_limit - vectors.rows);
    vectors.values.resize((vectors.rows + wanted) * vectors.dimension);
    const std::size_t got =
        file.read(wanted, vectors.values.data() + vectors.rows * vectors.dimension);
    vectors.values.resize((vectors.rows + got) * vectors.dimension);
    check_finite(path, vectors.row(vectors.rows), got, vectors.dimension, vectors.rows);
    vectors.rows += got;
    rows_read.store(vectors.rows, std::memory_order_relaxed);
    if (got < wanted) return;
  }
}

}  // namespace

void check_finite(const std::string& path, const float* rows, std::size_t count,
                  std::size_t dimension, std::uint64_t first_row) {
  for (std::size_t i = 0; i < count * dimension; ++i) {
    if (std::isfinite(rows[i])) continue;
    throw file_error(path, fmt::format("row {}, column {} holds {}, expected a finite number",
                                       first_row + i / dimension, i % dimension, rows[i]));
  }
}

void check_directions(const std::string& path, const float* rows, std::size_t count,
                      std::size_t dimension, std::uint64_t first_row) {
  for (std::size_t row = 0; row < count; ++row) {
    const float* const begin = rows + row * dimension;
    if (std::any_of(begin, begin + dimension, [](float x) { return x != 0; })) continue;
    throw file_error(
        path, fmt::format("row {} is all zeros, and cosine needs a direction", first_row + row));
  }
}

matrix load_vectors(const vector_input& input, std::size_t row_limit) {
  const std::string& path = input.path;
  const std::unique_ptr<vector_file> file = open_vector_file(input);
  matrix vectors;
  vectors.dimension = file->dimension();
  // One more row than the file has, so that the reader sees its end.
  const std::uint64_t all = file->rows().value_or(most_rows - 1) + 1;
  const std::size_t limit = row_limit == 0 ? all : std::min<std::uint64_t>(row_limit, all);
  std::atomic<std::uint64_t> rows_read{0};
  try {
    if (file->rows() && path != standard_input)  // there a header's claim has nothing behind it
      vectors.values.reserve(limit * vectors.dimension);
    const progress line("reading " + path,
                        file->rows() ? std::min<std::uint64_t>(limit, *file->rows()) : 0,
                        [&] { return rows_read.load(std::memory_order_relaxed); });
    read_all(*file, path, limit, vectors, rows_read);
  } catch (const std::bad_alloc&) {
    throw file_error(
        path, fmt::format("not enough memory for {} rows of {} floats", limit, vectors.dimension));
  } catch (const std::length_error&) {
    throw file_error(
        path, fmt::format("not enough memory for {} rows of {} floats", limit, vectors.dimension));
  }
  if (vectors.rows == 0) throw file_error(path, "no rows");
  return vectors;
}

std::vector<std::size_t> choose(std::size_t n, std::size_t count, std::uint64_t seed) {
  std::vector<std::size_t> chosen;
  std::size_t wanted = std::min(n, count);
  chosen.reserve(wanted);
  std::mt19937_64 random(seed);
  // Each number is taken with the chance (still wanted) / (still to come). The bias of the remainder
  // is below n / 2^64.
  for (std::size_t i = 0; i < n && wanted > 0; ++i) {
    if (random() % (n - i) >= wanted) continue;
    chosen.push_back(i);
    --wanted;
  }
  return chosen;
}

void keep_rows(matrix& vectors, const std::vector<std::size_t>& rows) {
  const std::size_t step = vectors.dimension;
  for (std::size_t to = 0; to < rows.size(); ++to)
    std::copy_n(vectors.values.data() + rows[to] * step, step, vectors.values.data() + to * step);
  vectors.rows = rows.size();
  vectors.values.resize(vectors.rows * step);
}

void scale_to_length(matrix& vectors, double length) {
  for (std::size_t row = 0; row < vectors.rows; ++row) {
    float* const first = vectors.values.data() + row * vectors.dimension;
    double square = 0;
    for (std::size_t i = 0; i < vectors.dimension; ++i) square += double{first[i]} * first[i];
    if (square == 0) continue;
    const double factor = length / std::sqrt(square);
    for (std::size_t i = 0; i < vectors.dimension; ++i)
      first[i] = static_cast<float>(first[i] * factor);
  }
}

}  // namespace korvex::cli
