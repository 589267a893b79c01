#include "obtain.h"

#include <fmt/core.h>

#include <filesystem>
#include <optional>
#include <stdexcept>

#include "runtime/platform/memory.h"

namespace korvex::compare {

namespace {

template <class T>
void replace(T& value, T wanted, T unset) {
  if (wanted != unset) value = wanted;
}

// None for data that comes from files.
std::optional<mixture> made_data(const options& o) {
  mixture recipe;
  if (o.data == "unit")
    recipe = {.points = 100'000, .dimension = 768, .latent = 32, .unit = true};
  else if (o.data != "clustered")
    return std::nullopt;
  replace(recipe.points, o.n_points, std::size_t{0});
  replace(recipe.dimension, o.dimension, std::size_t{0});
  replace(recipe.clusters, o.clusters, std::size_t{0});
  replace(recipe.latent, o.latent, std::size_t{0});
  replace(recipe.spread, o.spread, 0.0);
  if (o.noise >= 0) recipe.noise = o.noise;
  recipe.seed = o.seed;
  return recipe;
}

data_files files_of(const options& o) {
  if (o.data == "fashion") return fashion_files(o.fashion_directory);
  return {o.data, o.queries_file, o.format};
}

dataset obtain_as_it_is(const options& o) {
  if (const auto recipe = made_data(o)) return make_mixture(*recipe, o.n_queries);
  if (o.data == "fashion") return load_fashion(o.fashion_directory, o.n_points, o.n_queries);
  return load_files(files_of(o), o.n_points, o.n_queries);
}

std::optional<data_shape> expected_shape(const options& o) {
  if (const auto recipe = made_data(o)) return data_shape{recipe->points, recipe->dimension};
  return shape_of(files_of(o), o.n_points);
}

bool is_angular(const std::string& distance) {
  return distance == "angular" || distance == "cosine";
}

}  // namespace

dataset obtain_data(const options& o) {
  dataset data = obtain_as_it_is(o);
  if (data.base.rows < o.k)
    throw std::runtime_error(
        fmt::format("{}: {} vectors to search in, and --neighbours wants the {} nearest of them",
                    name_of_data(o), data.base.rows, o.k));
  if (!o.unit) return data;
  scale_to_unit(data.base);
  scale_to_unit(data.queries);
  data.recipe += ", scaled to length 1";
  return data;
}

std::string name_of_data(const options& o) {
  return std::filesystem::path(o.data).filename().string();
}

std::string metric_of(const options& o) {
  return o.unit || o.data == "unit" ? "squared Euclidean on length 1, which orders as angles do"
                                    : "squared Euclidean";
}

void warn_of_distance(const options& o, const dataset& data) {
  const std::string& named = data.named_distance;
  if (named.empty() || named == "euclidean" || (is_angular(named) && o.unit)) return;
  fmt::print(stderr, "{} calls its distance {}; measured is {}{}\n", name_of_data(o), named,
             metric_of(o), is_angular(named) ? ": --unit makes it angular" : "");
}

void warn_of_memory(const options& o, std::size_t n_indexes) {
  constexpr double bytes_a_link = 8;   // the graphs keep room for twice as many
  constexpr double bytes_around = 60;  // a vector's label, layers, flags, stars
  constexpr double gigabyte = 1e9;
  const std::optional<data_shape> expected = expected_shape(o);
  const auto available = static_cast<double>(platform::available_memory());
  if (!expected || available == 0) return;
  const auto rows = static_cast<double>(expected->rows);
  const double vectors = rows * static_cast<double>(expected->dimension * sizeof(float));
  const double index = vectors + rows * (bytes_a_link * o.links + bytes_around);
  const double wanted = vectors + static_cast<double>(n_indexes) * index;
  if (wanted <= available) return;
  fmt::print(stderr,
             "about {:.1f} GB of memory will be wanted, {:.1f} for the vectors and {:.1f} for each "
             "of {} indexes, and {:.1f} GB are free: --peers names fewer libraries, --points fewer "
             "vectors\n",
             wanted / gigabyte, vectors / gigabyte, index / gigabyte, n_indexes,
             available / gigabyte);
}

}  // namespace korvex::compare
