#include "dataset.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <stdexcept>

#include "cli/dataset.h"
#include "cli/readers/hdf5.h"
#include "parallel.h"

namespace korvex::compare {

namespace {

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
  throw std::runtime_error(path + ": " + why);
}

cli::vector_input input_of(const data_files& files, const std::string& path) {
  return {path, cli::format_named(files.format)};
}

matrix read_vectors(const cli::vector_input& input, std::size_t most) {
  cli::matrix read = cli::load_vectors(input, most);
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

bool is_hdf5(const std::string& path) {
  return cli::format_of_path(path) == cli::vector_format::hdf5;
}

std::string named_distance(const std::string& base) {
  for (const std::string& file : {base, base.substr(0, base.rfind(':'))})
    if (is_hdf5(file)) return cli::read_hdf5_text(file, "distance");
  return {};
}

// A base without queries of its own: reads rows for both and parts them.
void load_and_part(dataset& loaded, const data_files& files, std::size_t n_points,
                   std::size_t n_queries) {
  loaded.base = read_vectors(input_of(files, files.base), n_points == 0 ? 0 : n_points + n_queries);
  const std::size_t rows = loaded.base.rows;
  const std::size_t to_spare = n_points != 0 && rows > n_points ? rows - n_points : 0;
  const std::size_t taken = std::min(n_queries, std::max(rows / 10, to_spare));
  if (taken == 0)
    refuse(files.base,
           "has only " + std::to_string(rows) +
               " rows, too few to take queries out of them; --queries-file names others");
  loaded.queries = take_last_rows(loaded.base, taken);
  loaded.recipe += ", its last " + std::to_string(taken) + " rows as queries";
}

void load_both(dataset& loaded, const data_files& files, std::size_t n_points,
               std::size_t n_queries) {
  loaded.base = read_vectors(input_of(files, files.base), n_points);
  loaded.queries = read_vectors(input_of(files, files.queries), n_queries);
  if (loaded.queries.dimension != loaded.base.dimension)
    refuse(files.queries, "has dimension " + std::to_string(loaded.queries.dimension) +
                              ", the base " + std::to_string(loaded.base.dimension));
}

}  // namespace

data_files fashion_files(const std::string& directory) {
  return {directory + "/train-images-idx3-ubyte.gz", directory + "/t10k-images-idx3-ubyte.gz"};
}

dataset load_fashion(const std::string& directory, std::size_t n_points, std::size_t n_queries) {
  dataset loaded = load_files(fashion_files(directory), n_points, n_queries);
  loaded.recipe = "Fashion-MNIST, training pictures, test pictures as queries";
  return loaded;
}

dataset load_files(const data_files& files, std::size_t n_points, std::size_t n_queries) {
  if (files.queries.empty() && is_hdf5(files.base))
    return load_files({files.base + ":train", files.base + ":test", files.format}, n_points,
                      n_queries);
  dataset loaded;
  loaded.recipe = "file " + std::filesystem::path(files.base).filename().string();
  if (files.queries.empty())
    load_and_part(loaded, files, n_points, n_queries);
  else
    load_both(loaded, files, n_points, n_queries);
  loaded.named_distance = named_distance(files.base);
  return loaded;
}

std::optional<data_shape> shape_of(const data_files& files, std::size_t n_points) {
  if (files.base == cli::standard_input) return std::nullopt;
  const auto file = cli::open_vector_file(input_of(files, files.base));
  const std::size_t rows = file->rows().value_or(n_points);
  if (rows == 0) return std::nullopt;
  return data_shape{n_points == 0 ? rows : std::min(rows, n_points), file->dimension()};
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
