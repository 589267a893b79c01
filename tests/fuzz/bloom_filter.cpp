#include "storage/bloom_filter.h"

#include <cstring>

#include "fuzz/target.h"

// Damage to a small filter of a base unit and three data units.
namespace korvex::fuzz {
namespace {

constexpr std::uint32_t unit_bytes = 128;
constexpr int kind = 9;

vectpool_conf_s config_for(const std::string& folder) {
  vectpool_conf_s config;
  config.directory = folder.c_str();
  config.prefix = "filter";
  config.extension = "korvex";
  config.persistent = 1;
  return config;
}

// The smallest filter that can be asked for has units of 2 MiB; one of this size is brought back as
// it is stored.
void build(const std::string& folder) {
  vectpool_conf_s config = config_for(folder);
  {
    vectpool_c pool(unit_bytes, unit_bytes, 64, kind, &config);
    unsigned id = 0;
    auto* const base = static_cast<sbf_unit_s*>(pool.alloc(&id, 1));
    *base = {0x50534246, 1, 0, 0, {5, 768, 12, 4}};
  }
  scalable_bloom_filters_s* const filter = sbf_create(0, 0, 0, 0, &config, kind);
  for (std::uint32_t item = 0; item < 10; ++item) sbf_add(filter, &item, sizeof item);
  sbf_destroy(filter);
}

}  // namespace

void bloom_filter(const std::uint8_t* data, std::size_t size) {
  static const workshop shop("bloom_filter", [](const workshop& made) { build(made.path()); });
  input in(data, size);
  shop.lay_out(&in);
  const std::vector<std::string> before = shop.contents();
  vectpool_conf_s config = config_for(shop.path());
  scalable_bloom_filters_s* const filter = sbf_create(0, 0, 0, 0, &config, kind);
  if (filter == nullptr) {
    KORVEX_FUZZ_CHECK(shop.contents() == before);
    return;
  }
  for (std::uint32_t item = 5; item < 50; ++item) {
    sbf_exists(filter, &item, sizeof item);
    if (sbf_add(filter, &item, sizeof item) == 1)
      KORVEX_FUZZ_CHECK(sbf_exists(filter, &item, sizeof item));
  }
  const double rate = sbf_false_positive_rate(filter);
  KORVEX_FUZZ_CHECK(rate >= 0 && rate <= 1);
  sbf_count(filter);
  sbf_destroy(filter);
}

}  // namespace korvex::fuzz
