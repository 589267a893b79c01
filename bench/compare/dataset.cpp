#include "dataset.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <stdexcept>

#include "cli/dataset.h"
#include "parallel.h"

namespace korvex::compare {

namespace {

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
  throw std::runtime_error(path + ": " + why);
}

std::string counted(const matrix& base) {
  return std::to_string(base.rows) + " x " + std::to_string(base.dimension);
}

matrix read_vectors(const std::string& path, std::size_t most) {
  cli::matrix read = cli::load_vectors({path}, most);
  return {read.rows, read.dimension, std::move(read.values)};
}

matrix take_last_rows(matrix& from, std::size_t count) {
  const std::size_t kept = from.rows - count;
  matrix taken{count,
               from.dimension,
               {from.values.begin() + static_cast<std::ptrdiff_t>(kept * from.dimension),
                from.values.end()}};
  from.rows = kept;
  from.values.resize(kept * from.dimension);
  return taken;
}

}  // namespace

dataset load_fashion(const std::string& directory, std::size_t n_points, std::size_t n_queries) {
  dataset loaded = load_files(directory + "/train-images-idx3-ubyte.gz",
                              directory + "/t10k-images-idx3-ubyte.gz", n_points, n_queries);
  loaded.recipe = "Fashion-MNIST, training pictures, test pictures as queries";
  return loaded;
}

dataset load_files(const std::string& base, const std::string& queries, std::size_t n_points,
                   std::size_t n_queries) {
  const std::string ending = std::filesystem::path(base).extension().string();
  if (queries.empty() && (ending == ".hdf5" || ending == ".h5"))
    return load_files(base + ":train", base + ":test", n_points, n_queries);
  dataset loaded;
  const std::size_t split_off = queries.empty() ? n_queries : 0;
  loaded.base = read_vectors(base, n_points == 0 ? 0 : n_points + split_off);
  if (loaded.base.rows <= split_off) refuse(base, "has only " + counted(loaded.base));
  loaded.queries =
      queries.empty() ? take_last_rows(loaded.base, split_off) : read_vectors(queries, n_queries);
  if (loaded.queries.rows == 0 || loaded.queries.dimension != loaded.base.dimension)
    refuse(queries, "has dimension " + std::to_string(loaded.queries.dimension) + ", the base " +
                        std::to_string(loaded.base.dimension));
  loaded.recipe = "file " + std::filesystem::path(base).filename().string();
  return loaded;
}

void scale_to_unit(matrix& rows) {
  in_parallel(rows.rows, [&](std::size_t first, std::size_t last) {
    for (std::size_t row = first; row < last; ++row) scale_to_unit(rows.row(row), rows.dimension);
  });
}

void scale_to_unit(float* row, std::size_t dimension) {
  double squares = 0;
  for (std::size_t i = 0; i < dimension; ++i) squares += double{row[i]} * row[i];
  const double factor = squares > 0 ? 1.0 / std::sqrt(squares) : 1.0;
  for (std::size_t i = 0; i < dimension; ++i) row[i] = static_cast<float>(row[i] * factor);
}

}  // namespace korvex::compare
