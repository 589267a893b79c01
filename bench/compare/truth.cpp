#include "truth.h"

#include <xxhash.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>

#include "math/kernels.h"
#include "parallel.h"

namespace korvex::compare {

namespace {

constexpr std::size_t tile_bytes =
    256 * 1024;  // base rows that stay in a near cache while every query meets them
constexpr char cache_magic[8] = {'K', 'V', 'T', 'R', 'U', 'T', 'H', '1'};

struct cache_header {
  char magic[8];
  std::uint64_t fingerprint;
  std::uint64_t queries;
  std::uint64_t k;
};

std::uint64_t fingerprint(const dataset& data) {
  const std::uint64_t base =
      XXH3_64bits(data.base.values.data(), data.base.values.size() * sizeof(float));
  return XXH3_64bits_withSeed(data.queries.values.data(),
                              data.queries.values.size() * sizeof(float),
                              base ^ data.base.dimension);
}

template <class T>
std::streamsize bytes_of(const std::vector<T>& values) {
  return static_cast<std::streamsize>(values.size() * sizeof(T));
}

bool read_cache(const std::string& name, const cache_header& wanted, exact_truth* truth) {
  std::ifstream file(name, std::ios::binary);
  cache_header found{};
  if (!file.read(reinterpret_cast<char*>(&found), sizeof found) ||
      std::memcmp(&found, &wanted, sizeof found) != 0)
    return false;
  return file.read(reinterpret_cast<char*>(truth->ids.data()), bytes_of(truth->ids)) &&
         file.read(reinterpret_cast<char*>(truth->distances.data()), bytes_of(truth->distances));
}

void write_cache(const std::string& name, const cache_header& header, const exact_truth& truth) {
  std::ofstream file(name, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(&header), sizeof header);
  file.write(reinterpret_cast<const char*>(truth.ids.data()), bytes_of(truth.ids));
  file.write(reinterpret_cast<const char*>(truth.distances.data()), bytes_of(truth.distances));
  if (!file.flush())
    std::fprintf(stderr, "%s cannot be written, the exact answers are not kept\n", name.c_str());
}

// Keeps the nearest rows of one query in order.
void offer(exact_truth& truth, std::size_t query, std::uint32_t id, float distance) {
  float* const distances = truth.distances.data() + query * truth.k;
  std::uint32_t* const ids = truth.ids.data() + query * truth.k;
  std::size_t place = truth.k - 1;
  if (!(distance < distances[place])) return;
  for (; place > 0 && distance < distances[place - 1]; --place) {
    distances[place] = distances[place - 1];
    ids[place] = ids[place - 1];
  }
  distances[place] = distance;
  ids[place] = id;
}

void scan(const dataset& data, std::size_t first_query, std::size_t last_query,
          exact_truth& truth) {
  const matrix& base = data.base;
  const auto batch4 = space_l2_square_get_batch4_function(static_cast<int>(base.dimension));
  const auto single = space_l2_square_get_distance_function(static_cast<int>(base.dimension));
  const std::size_t tile =
      std::max<std::size_t>(tile_bytes / (base.dimension * sizeof(float)) / 4 * 4, 4);
  for (std::size_t begin = 0; begin < base.rows; begin += tile) {
    const std::size_t end = std::min(begin + tile, base.rows);
    for (std::size_t query = first_query; query < last_query; ++query) {
      const float* const wanted = data.queries.row(query);
      std::size_t row = begin;
      for (; row + 4 <= end; row += 4) {
        const float* const rows[4] = {base.row(row), base.row(row + 1), base.row(row + 2),
                                      base.row(row + 3)};
        float distances[4];
        batch4(wanted, rows, base.dimension, distances);
        for (std::size_t i = 0; i < 4; ++i)
          offer(truth, query, static_cast<std::uint32_t>(row + i), distances[i]);
      }
      for (; row < end; ++row)
        offer(truth, query, static_cast<std::uint32_t>(row),
              single(wanted, base.row(row), base.dimension));
    }
  }
}

}  // namespace

exact_truth find_truth(const dataset& data, std::uint32_t k, const std::string& cache_file) {
  const std::size_t places = data.queries.rows * k;
  exact_truth truth{k, std::vector<std::uint32_t>(places), std::vector<float>(places)};
  cache_header header{};
  std::copy(std::begin(cache_magic), std::end(cache_magic), header.magic);
  header.fingerprint = fingerprint(data);
  header.queries = data.queries.rows;
  header.k = k;
  if (!cache_file.empty() && read_cache(cache_file, header, &truth)) return truth;
  truth.distances.assign(places, std::numeric_limits<float>::infinity());
  in_parallel(data.queries.rows,
              [&](std::size_t first, std::size_t last) { scan(data, first, last, truth); });
  if (!cache_file.empty()) write_cache(cache_file, header, truth);
  return truth;
}

double recall_of(const exact_truth& truth, const dataset& data,
                 const std::vector<std::uint32_t>& answers) {
  const auto distance =
      space_l2_square_get_distance_function(static_cast<int>(data.base.dimension));
  std::size_t hits = 0;
  for (std::size_t query = 0; query < data.queries.rows; ++query) {
    const std::uint32_t* const row = answers.data() + query * truth.k;
    const float farthest = truth.distances[(query + 1) * truth.k - 1];
    for (std::uint32_t i = 0; i < truth.k; ++i) {
      if (row[i] >= data.base.rows || std::find(row, row + i, row[i]) != row + i) continue;
      if (distance(data.queries.row(query), data.base.row(row[i]), data.base.dimension) <= farthest)
        ++hits;
    }
  }
  return static_cast<double>(hits) / static_cast<double>(data.queries.rows * truth.k);
}

}  // namespace korvex::compare
