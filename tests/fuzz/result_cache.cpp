#include "search/result_cache.h"

#include <algorithm>
#include <vector>

#include "fuzz/target.h"

// Damage to a cache of four results, and the entry of its own.
namespace korvex::fuzz {
namespace {

constexpr std::uint32_t dimension = 3;
constexpr float queries[][dimension] = {
    {1, 2, 3}, {10, 20, 30}, {100, 200, 300}, {1000, 2000, 3000}, {7, 8, 9}};

void open(const std::string& folder) {
  vectpool_conf_s config;
  config.directory = folder.c_str();
  config.prefix = "cache";
  config.extension = "korvex";
  config.persistent = 1;
  cache_search_init(8, &config);
}

int store(std::size_t query, std::uint32_t count) {
  std::vector<std::uint32_t> ids(count);
  for (std::uint32_t i = 0; i < count; ++i) ids[i] = i + 1;
  return cache_search_results_set(queries[query], dimension, 20, 1, 5, ids.data(), count);
}

void build(const std::string& folder) {
  open(folder);
  for (std::size_t query = 0; query < 4; ++query)
    store(query, 5 + static_cast<std::uint32_t>(query));
  cache_search_destroy();
}

// The buffer is as large as it is said to be: one id more is a finding.
int look_up(std::size_t query, std::uint32_t capacity) {
  std::vector<std::uint32_t> ids(capacity);
  cache_results_s found;
  found.ids = ids.data();
  const int grade = cache_search_results_get(queries[query], dimension, 20, 1, &found, capacity);
  KORVEX_FUZZ_CHECK(grade >= -1 && grade <= 2);
  if (grade >= 0) KORVEX_FUZZ_CHECK((found.ef_and_count & 0xFFFF) <= capacity);
  return grade;
}

}  // namespace

void result_cache(const std::uint8_t* data, std::size_t size) {
  static const workshop shop("result_cache", [](const workshop& made) { build(made.path()); });
  input in(data, size);
  shop.lay_out(&in);
  open(shop.path());
  for (std::size_t query = 0; query < std::size(queries); ++query)
    for (const std::uint32_t capacity : {1u, 8u, cache_max_ids}) look_up(query, capacity);
  cache_search_invalidate();
  for (std::size_t query = 0; query < std::size(queries); ++query) {
    const int before = look_up(query, 8);
    KORVEX_FUZZ_CHECK(before != 0 && before != 1);  // old by now
    if (store(query, 9) == 0) KORVEX_FUZZ_CHECK(look_up(query, 9) == 0);
  }
  cache_search_destroy();
}

}  // namespace korvex::fuzz
