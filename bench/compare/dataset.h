#ifndef KORVEX_BENCH_COMPARE_DATASET_H
#define KORVEX_BENCH_COMPARE_DATASET_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korvex::compare {

// Row after row.
struct matrix {
  std::size_t rows = 0;
  std::size_t dimension = 0;
  std::vector<float> values;

  const float* row(std::size_t index) const { return values.data() + index * dimension; }
  float* row(std::size_t index) { return values.data() + index * dimension; }
};

// No query is a row of the base.
struct dataset {
  std::string recipe;  // what it is and how it came about, for the report
  matrix base;
  matrix queries;
  std::string named_distance{};  // what the file calls its distance; empty where it does not
};

// A seeded mixture of Gaussian clusters that lies near a subspace, as learned vectors and descriptors do. In `latent`
// dimensions, centres are drawn from N(0, spread^2) and points around a centre from N(0, 1); a fixed random map carries
// them into `dimension` dimensions, where each component gets N(0, noise^2) on top. `unit` scales rows to length 1.
// latent sets how hard the search is: at 128 free dimensions all points are about equally far from each other, and no
// graph finds its way; real descriptors behave like 15 to 25. As it stands, a walk of some 70
// candidates and 1,000 distances finds 95 % of the neighbours.
struct mixture {
  std::size_t points = 1'000'000;
  std::size_t dimension = 128;
  std::size_t clusters = 1'000;
  std::size_t latent = 24;
  double spread = 1.0;
  double noise = 0.1;
  bool unit = false;
  std::uint64_t seed = 1;
};

// Rows depend on the seed and their number alone, not on how many there are or on threads. Uses every processor.
dataset make_mixture(const mixture& recipe, std::size_t n_queries);

// The pictures of Debian's dataset-fashion-mnist, pixels as numbers from 0 to 255: training pictures are the base, test
// pictures the queries. n_points 0: all.
dataset load_fashion(const std::string& directory, std::size_t n_points, std::size_t n_queries);

// Files of any format that the tool reads; FILE.hdf5:NAME is one data set of an HDF5 file.
struct data_files {
  std::string base;
  std::string queries;  // empty: an HDF5 file's test vectors, else the last rows of the base
  std::string format = "auto";  // of files whose names do not tell it, as the tool's --format
};
data_files fashion_files(const std::string& directory);

// Rows that are taken out of the base to be queries are n_queries, or a tenth of a file that has no more for them.
// Throws what the tool's readers throw, or std::runtime_error.
dataset load_files(const data_files& files, std::size_t n_points, std::size_t n_queries);

struct data_shape {
  std::size_t rows;
  std::size_t dimension;
};
// What loading the base will give, by the file's header; none where only reading tells. Throws as loading does.
std::optional<data_shape> shape_of(const data_files& files, std::size_t n_points);

// Brings rows to Euclidean length 1, zero vectors stay.
void scale_to_unit(matrix& rows);
void scale_to_unit(float* row, std::size_t dimension);

}  // namespace korvex::compare

#endif  // KORVEX_BENCH_COMPARE_DATASET_H
