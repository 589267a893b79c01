#include "storage/bloom_filter.h"

#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <numbers>
#include <string>

#include "runtime/log.h"
#include "runtime/platform/files.h"
#include "runtime/platform/memory.h"
#include "storage/vector_store_format.h"

namespace korvex {
namespace {

constexpr std::uint32_t unit_magic = 0x50534246;
constexpr std::uint32_t unit_version = 1;
constexpr std::uint32_t max_hashes = 64;
constexpr std::uint32_t spare_item = 1 + sbf_max_units;
constexpr std::uint64_t base_seed = 0x1234567890abcdef;
constexpr std::uint64_t seed_step = 0x9e3779b97f4a7c15;
// 2^32 - 64: with the head such a unit still fits 2^30 bytes.
constexpr std::uint32_t max_size_bits = 4294967232;
// 2^32 - 256: the largest unit has more bits than its 32-bit count can tell; the rest stays clear.
constexpr std::uint64_t max_unit_bits = 4294967040;

std::uint64_t* words_of(sbf_unit_s* unit) {
  return reinterpret_cast<std::uint64_t*>(unit + 1);
}

std::uint64_t unit_bits(std::uint32_t words) {
  return std::min<std::uint64_t>(std::uint64_t{words} * 64, max_unit_bits);
}

std::uint32_t load_items(const sbf_unit_s* unit) {
  return std::atomic_ref(const_cast<sbf_unit_s*>(unit)->items).load(std::memory_order_relaxed);
}

// Adders are serialised, so a plain increment would do; atomic because readers look on.
void store_items(sbf_unit_s* unit, std::uint32_t items) {
  std::atomic_ref(unit->items).store(items, std::memory_order_relaxed);
}

// The k hashes of one item.
class item_hashes {
 public:
  item_hashes(std::uint32_t hashes, const void* data, std::size_t length)
      : data_(data), length_(length) {
    if (hashes > 0) step_ = length / hashes < 8 ? (length / hashes) | 1 : 9;
  }
  // i counts from 1; 0 is the hash of the base unit.
  std::uint64_t operator[](std::uint32_t i) const {
    return XXH64(data_, length_, base_seed + i * step_ * seed_step);
  }

 private:
  const void* data_;
  std::size_t length_;
  std::uint64_t step_ = 1;
};

void set_bit(sbf_unit_s* unit, const sbf_parameters_s& parameters, std::uint64_t hash) {
  const std::uint64_t bit = hash % parameters.bits;
  if (bit / 64 >= parameters.words) return;
  const std::uint64_t mask = std::uint64_t{1} << (bit % 64);
  std::atomic_ref(words_of(unit)[bit / 64]).fetch_or(mask, std::memory_order_relaxed);
}

bool test_bit(sbf_unit_s* unit, const sbf_parameters_s& parameters, std::uint64_t hash) {
  const std::uint64_t bit = hash % parameters.bits;
  if (bit / 64 >= parameters.words) return false;
  const std::uint64_t word =
      std::atomic_ref(words_of(unit)[bit / 64]).load(std::memory_order_relaxed);
  return (word >> (bit % 64) & 1) != 0;
}

// The head goes last: a unit without one counts as never made.
void write_unit(void* item, std::uint32_t id, std::uint32_t words,
                const sbf_parameters_s& parameters) {
  auto* unit = static_cast<sbf_unit_s*>(item);
  std::memset(words_of(unit), 0, std::size_t{words} * 8);
  *unit = {unit_magic, unit_version, id, 0, parameters};
}

sbf_item_state head_state(const sbf_unit_s& unit) {
  constexpr sbf_unit_s none{};
  if (unit.magic == unit_magic && unit.version == unit_version) return sbf_item_state::good;
  return std::memcmp(&unit, &none, sizeof unit) == 0 ? sbf_item_state::blank
                                                     : sbf_item_state::corrupted;
}

void list_unit(scalable_bloom_filters_s* filter, sbf_unit_s* unit) {
  const std::uint32_t count = filter->unit_count.load(std::memory_order_relaxed);
  filter->units[count] = unit;
  filter->current = unit;
  filter->unit_count.store(count + 1, std::memory_order_release);
}

sbf_unit_s* make_unit(scalable_bloom_filters_s* filter) {
  unsigned id = 0;
  void* item = filter->pool->alloc(&id, 1);
  if (item == nullptr) {
    KORVEX_LOG("*** BUG *** pool alloc failed\n");
    return nullptr;
  }
  write_unit(item, id, filter->parameters.words, {});
  return static_cast<sbf_unit_s*>(item);
}

bool make_base(scalable_bloom_filters_s* filter) {
  unsigned id = 0;
  void* item = filter->pool->size() == 0 ? filter->pool->alloc(&id, 1) : filter->pool->get(0);
  if (item == nullptr) {
    KORVEX_LOG("*** BUG *** pool alloc failed\n");
    return false;
  }
  write_unit(item, id, filter->parameters.words, filter->parameters);
  filter->base = static_cast<sbf_unit_s*>(item);
  return true;
}

// Without a data unit nothing could ever be added.
bool ensure_data_unit(scalable_bloom_filters_s* filter) {
  if (filter->current != nullptr) return true;
  sbf_unit_s* first = make_unit(filter);
  if (first != nullptr) list_unit(filter, first);
  return first != nullptr;
}

bool restore_units(scalable_bloom_filters_s* filter) {
  const std::uint32_t items = filter->pool->size();
  for (std::uint32_t id = 1; id < std::min(items, spare_item); ++id) {
    void* item = filter->pool->get(id);
    const auto state = sbf_check_unit(item, filter->pool->record_size());
    // Only the newest unit can have been cut off.
    if (state == sbf_item_state::blank && id + 1 == items) {
      write_unit(item, id, filter->parameters.words, {});
    } else if (state != sbf_item_state::good) {
      KORVEX_LOG_CRITICAL("corrupted sbf pool id %u\n", id);
      return false;
    }
    list_unit(filter, static_cast<sbf_unit_s*>(item));
  }
  filter->spare_made = items > spare_item;
  return true;
}

bool restore(scalable_bloom_filters_s* filter) {
  void* item = filter->pool->get(0);
  const auto state = sbf_check_base(item, filter->pool->record_size(), &filter->parameters);
  if (state != sbf_item_state::good) {
    KORVEX_LOG_CRITICAL("corrupted sbf pool (base)\n");
    return false;
  }
  filter->base = static_cast<sbf_unit_s*>(item);
  if (!restore_units(filter) || !ensure_data_unit(filter)) return false;
  KORVEX_LOG("Restored sbf filter with %u units and %u ids\n",
             filter->unit_count.load(std::memory_order_relaxed), load_items(filter->base));
  return true;
}

// The file of the base unit in a filter of units of this size.
std::string base_file(const vectpool_conf_s& conf, std::uint32_t unit_bytes, int kind) {
  const vector_file_names_s names{conf.prefix != nullptr ? conf.prefix : "nimbra-korvex",
                                  conf.extension != nullptr ? conf.extension : "vp", unit_bytes, 1,
                                  static_cast<std::uint8_t>(kind)};
  return std::string(conf.directory) + "/" + vector_block_file_name(names, 0);
}

bool is_base_file(const std::string& path, std::uint32_t unit_bytes) {
  const platform::file_status status = platform::status_of(path.c_str());
  if (!status.exists || !status.regular) return false;
  const int fd = platform::open_file(path.c_str(), platform::open_mode::read_only);
  if (fd < 0) return false;
  std::byte start[vector_block_header_bytes + sizeof(sbf_unit_s)];
  const bool whole = platform::read_at(fd, start, sizeof start, 0) == sizeof start;
  platform::close_file(fd);
  // A blank unit holds nothing; a corrupted one is to be reported.
  return whole &&
         check_vector_block(start, status.size, unit_bytes, 1, 0) == vector_block_verdict::good &&
         sbf_check_unit(start + vector_block_header_bytes, unit_bytes) != sbf_item_state::blank;
}

// The unit size is part of the file names, so a filter made for another capacity is looked for by
// all sizes. 0 when there is none.
std::uint32_t stored_unit_bytes(const vectpool_conf_s* conf, int kind) {
  if (conf == nullptr || conf->persistent == 0 || conf->directory == nullptr) return 0;
  for (std::uint32_t size = sbf_min_unit_bytes; size <= sbf_max_unit_bytes; size *= 2)
    if (is_base_file(base_file(*conf, size, kind), size)) return size;
  return 0;
}

bool open_pool(scalable_bloom_filters_s* filter, std::uint32_t unit_bytes,
               vectpool_conf_s* configuration, int kind) {
  try {
    const std::uint32_t stored = stored_unit_bytes(configuration, kind);
    if (stored != 0) unit_bytes = stored;
    filter->pool = new vectpool_c(unit_bytes, unit_bytes, 64, kind, configuration);
    return true;
  } catch (const std::exception&) {
    KORVEX_LOG_CRITICAL("creating sbf failed\n");
    return false;
  }
}

bool start(scalable_bloom_filters_s* filter, const sbf_sizing_s& sizing) {
  // Another size in an empty pool: a stored filter was seen, but could not be mapped.
  if (filter->pool->record_size() != sizing.unit_bytes) {
    KORVEX_LOG_CRITICAL("creating sbf failed\n");
    return false;
  }
  filter->parameters = sizing.parameters;
  return make_base(filter) && ensure_data_unit(filter);
}

// Nothing stored, or a base unit whose making was cut off.
bool is_new(const vectpool_c& pool) {
  if (pool.size() > 1) return false;
  return pool.size() == 0 ||
         sbf_check_unit(pool.get(0), pool.record_size()) == sbf_item_state::blank;
}

struct filter_deleter {
  void operator()(scalable_bloom_filters_s* filter) const {
    delete filter->pool;
    std::destroy_at(filter);
    platform::aligned_free(filter);
  }
};
using filter_ptr = std::unique_ptr<scalable_bloom_filters_s, filter_deleter>;

filter_ptr allocate_filter() {
  void* room = platform::aligned_malloc(sizeof(scalable_bloom_filters_s), 64);
  if (room != nullptr) return filter_ptr(new (room) scalable_bloom_filters_s);
  KORVEX_LOG_CRITICAL("creating sbf failed\n");
  return nullptr;
}

sbf_parameters_s parameters_for(std::uint32_t unit_bytes, double fill_ratio, std::uint32_t k) {
  const std::uint32_t words = (unit_bytes - sizeof(sbf_unit_s)) / 8;
  const auto bits = static_cast<std::uint32_t>(unit_bits(words));
  const auto max_items = static_cast<std::uint32_t>(bits * fill_ratio) / k;
  return {k, bits, words, std::max(max_items, 1U)};
}

bool in_unit_interval(double value) {
  return value > 0 && value < 1;
}

}  // namespace

sbf_sizing_s sbf_size(std::uint32_t capacity, double error_rate, double fill_ratio,
                      std::uint32_t k) {
  constexpr double ln2 = std::numbers::ln2;
  constexpr double ln2_squared = 0.4804530139182014;
  const double p = in_unit_interval(error_rate) ? error_rate : 0.001;
  const double fill = in_unit_interval(fill_ratio) ? fill_ratio : 0.75;
  // At most ceil(1074) before the cap: the smallest positive double is 2^-1074.
  if (k == 0) k = static_cast<std::uint32_t>(std::ceil(-std::log(p) / ln2));
  k = std::clamp(k, 1U, max_hashes);
  const double n = std::clamp(capacity, 1000000U, max_size_bits);

  double clear_share = std::log(1 - std::pow(p, 1.0 / k));
  if (std::fabs(clear_share) < 1e-10) clear_share = -1e-10;
  const double wanted =
      std::max({std::ceil(-(k * n) / clear_share), std::ceil(-n * std::log(p) / ln2_squared),
                std::ceil(k * n / ln2)});
  const auto bits = static_cast<std::uint64_t>(std::min<double>(wanted, max_size_bits));
  const std::uint64_t bytes = (bits + 63) / 64 * 8 + sizeof(sbf_unit_s);
  const auto unit_bytes = static_cast<std::uint32_t>(std::bit_ceil(bytes));
  return {parameters_for(unit_bytes, fill, k), unit_bytes};
}

sbf_item_state sbf_check_unit(const void* item, std::uint32_t unit_bytes) {
  sbf_unit_s unit;
  if (item == nullptr || unit_bytes <= sizeof unit) return sbf_item_state::corrupted;
  std::memcpy(&unit, item, sizeof unit);
  return head_state(unit);
}

sbf_item_state sbf_check_base(const void* item, std::uint32_t unit_bytes, sbf_parameters_s* out) {
  const auto state = sbf_check_unit(item, unit_bytes);
  if (state != sbf_item_state::good) return state;
  sbf_unit_s unit;
  std::memcpy(&unit, item, sizeof unit);
  const sbf_parameters_s& stored = unit.parameters;
  const bool usable = stored.hashes <= max_hashes && stored.max_items >= 1 && stored.words >= 1 &&
                      stored.words == (unit_bytes - sizeof unit) / 8 &&
                      stored.bits == unit_bits(stored.words);
  if (!usable) return sbf_item_state::corrupted;
  *out = stored;
  return sbf_item_state::good;
}

scalable_bloom_filters_s* sbf_create(std::uint32_t capacity, double error_rate, double fill_ratio,
                                     std::uint32_t k, vectpool_conf_s* configuration, int kind) {
  filter_ptr filter = allocate_filter();
  if (filter == nullptr) return nullptr;
  const sbf_sizing_s sizing = sbf_size(capacity, error_rate, fill_ratio, k);
  if (!open_pool(filter.get(), sizing.unit_bytes, configuration, kind)) return nullptr;
  const bool ready = is_new(*filter->pool) ? start(filter.get(), sizing) : restore(filter.get());
  return ready ? filter.release() : nullptr;
}

void sbf_destroy(scalable_bloom_filters_s* filter) {
  if (filter == nullptr) return;
  sbf_sync(filter);
  filter_deleter{}(filter);
}

int sbf_add(scalable_bloom_filters_s* filter, const void* data, std::size_t length) {
  if (filter == nullptr || filter->base == nullptr || filter->current == nullptr) return 0;
  const sbf_parameters_s& parameters = filter->parameters;
  const item_hashes hashes(parameters.hashes, data, length);
  set_bit(filter->base, parameters, hashes[0]);

  if (load_items(filter->current) >= parameters.max_items) {
    // At the limit one more item is allocated, once, and never used.
    if (filter->spare_made) return 0;
    sbf_unit_s* unit = make_unit(filter);
    if (unit == nullptr) return 0;
    filter->spare_made = filter->unit_count.load(std::memory_order_relaxed) == sbf_max_units;
    if (filter->spare_made) return 0;
    list_unit(filter, unit);
  }
  for (std::uint32_t i = 1; i <= parameters.hashes; ++i)
    set_bit(filter->current, parameters, hashes[i]);
  store_items(filter->current, load_items(filter->current) + 1);
  store_items(filter->base, load_items(filter->base) + 1);
  return 1;
}

bool sbf_exists(const scalable_bloom_filters_s* filter, const void* data, std::size_t length) {
  if (filter == nullptr || filter->base == nullptr) return false;
  const sbf_parameters_s& parameters = filter->parameters;
  const item_hashes hashes(parameters.hashes, data, length);
  if (!test_bit(filter->base, parameters, hashes[0])) return false;

  const std::uint32_t count = filter->unit_count.load(std::memory_order_acquire);
  std::uint64_t alive = (std::uint64_t{1} << count) - 1;  // a bit a unit
  for (std::uint32_t i = 1; i <= parameters.hashes && alive != 0; ++i) {
    const std::uint64_t hash = hashes[i];
    for (std::uint64_t left = alive; left != 0; left &= left - 1) {
      const int unit = std::countr_zero(left);
      if (!test_bit(filter->units[unit], parameters, hash)) alive &= ~(std::uint64_t{1} << unit);
    }
  }
  return alive != 0;
}

double sbf_false_positive_rate(const scalable_bloom_filters_s* filter) {
  if (filter == nullptr) return 0;
  const std::uint32_t count = filter->unit_count.load(std::memory_order_acquire);
  const double k = filter->parameters.hashes;
  double all_right = 1;
  for (std::uint32_t unit = 0; unit < count; ++unit) {
    const double items = load_items(filter->units[unit]);
    const double exponent = std::max(-k * items / filter->parameters.bits, -30.0);
    all_right *= 1 - std::pow(std::max(1 - std::exp(exponent), 1e-9), k);
  }
  return 1 - all_right;
}

std::uint32_t sbf_count(const scalable_bloom_filters_s* filter) {
  return filter == nullptr || filter->base == nullptr ? 0 : load_items(filter->base);
}

void sbf_sync(scalable_bloom_filters_s* filter) {
  if (filter != nullptr && filter->pool != nullptr) filter->pool->sync(0);
}

}  // namespace korvex
