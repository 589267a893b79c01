#include <algorithm>
#include <cmath>
#include <numbers>
#include <sstream>
#include <thread>

#include "dataset.h"
#include "parallel.h"

namespace korvex::compare {

namespace {

enum stream : std::uint64_t { centre_stream = 1, map_stream, base_stream, query_stream };

std::uint64_t mixed(std::uint64_t x) {
  x += 0x9E3779B97F4A7C15ULL;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
  return x ^ (x >> 31);
}

// Random numbers of one row: splitmix64, and Box and Muller's transform for normal ones. The standard library's
// distributions differ between its makers.
class row_random {
 public:
  row_random(std::uint64_t seed, stream which, std::uint64_t row)
      : state_(mixed(mixed(mixed(seed) ^ which) ^ row)) {}

  std::uint64_t bits() { return mixed(state_++); }

  double normal() {
    if (spare_ready_) {
      spare_ready_ = false;
      return spare_;
    }
    const double radius = std::sqrt(-2.0 * std::log(1.0 - uniform()));
    const double angle = 2.0 * std::numbers::pi * uniform();
    spare_ = radius * std::sin(angle);
    spare_ready_ = true;
    return radius * std::cos(angle);
  }

 private:
  double uniform() { return static_cast<double>(bits() >> 11) * 0x1p-53; }

  std::uint64_t state_;
  double spare_ = 0;
  bool spare_ready_ = false;
};

matrix normal_rows(std::uint64_t seed, stream which, std::size_t rows, std::size_t dimension,
                   double deviation) {
  matrix made{rows, dimension, std::vector<float>(rows * dimension)};
  for (std::size_t row = 0; row < rows; ++row) {
    row_random random(seed, which, row);
    for (std::size_t i = 0; i < dimension; ++i)
      made.row(row)[i] = static_cast<float>(deviation * random.normal());
  }
  return made;
}

class mixture_maker {
 public:
  explicit mixture_maker(const mixture& recipe)
      : recipe_(recipe),
        centres_(
            normal_rows(recipe.seed, centre_stream, recipe.clusters, recipe.latent, recipe.spread)),
        map_(normal_rows(recipe.seed, map_stream, recipe.latent, recipe.dimension,
                         1.0 / std::sqrt(static_cast<double>(recipe.latent)))) {}

  matrix rows(stream which, std::size_t count) const {
    matrix made{count, recipe_.dimension, std::vector<float>(count * recipe_.dimension)};
    in_parallel(count, [&](std::size_t first, std::size_t last) {
      std::vector<float> latent(recipe_.latent);
      for (std::size_t row = first; row < last; ++row)
        fill(which, row, latent.data(), made.row(row));
    });
    return made;
  }

 private:
  void fill(stream which, std::size_t row, float* latent, float* out) const {
    row_random random(recipe_.seed, which, row);
    const float* const centre = centres_.row(random.bits() % recipe_.clusters);
    for (std::size_t i = 0; i < recipe_.latent; ++i)
      latent[i] = centre[i] + static_cast<float>(random.normal());
    for (std::size_t i = 0; i < recipe_.dimension; ++i)
      out[i] = static_cast<float>(recipe_.noise * random.normal());
    for (std::size_t i = 0; i < recipe_.latent; ++i)
      for (std::size_t j = 0; j < recipe_.dimension; ++j) out[j] += latent[i] * map_.row(i)[j];
    if (recipe_.unit) scale_to_unit(out, recipe_.dimension);
  }

  const mixture recipe_;
  const matrix centres_;
  const matrix map_;
};

std::string describe(const mixture& recipe) {
  std::ostringstream text;
  text << "Gaussian mixture, " << recipe.clusters << " clusters, " << recipe.latent
       << " latent dimensions, spread " << recipe.spread << ", noise " << recipe.noise
       << (recipe.unit ? ", unit length" : "") << ", seed " << recipe.seed;
  return text.str();
}

}  // namespace

dataset make_mixture(const mixture& recipe, std::size_t n_queries) {
  const mixture_maker maker(recipe);
  return {describe(recipe), maker.rows(base_stream, recipe.points),
          maker.rows(query_stream, n_queries)};
}

}  // namespace korvex::compare
