#include <algorithm>
#include <vector>

#include "engine/store_layout.h"
#include "engine/verify_files.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/files.h"
#include "search/result_cache.h"
#include "storage/bloom_filter.h"
#include "storage/hash_table.h"

namespace korvex::verify {

namespace {

constexpr std::uint64_t control_key = 1;  // of the cache's own record; its data are no results

// Neither cache nor filter holds what cannot be made again: damage is a warning.
class cache_check {
 public:
  cache_check(const store_view& items, verify_statistics* statistics, findings* out)
      : items_(items), statistics_(*statistics), out_(*out), now_(platform::time_usec()) {}

  void run() {
    const auto item = [](const void* items, std::uint32_t id) -> const void* {
      return static_cast<const store_view*>(items)->record(id);
    };
    if (!pers_hash_free_list_valid({&items_, item, items_.size()}, sizeof(cache_entry_s)))
      out_.warning("result cache",
                   "the list of free items is damaged: the next opening makes it anew");
    for (std::uint32_t id = 1; id < items_.size(); ++id) check_item(id);
    std::sort(keys_.begin(), keys_.end());
    const auto twice = std::adjacent_find(keys_.begin(), keys_.end());
    if (twice != keys_.end())
      out_.warning("result cache", "key %016llx stands there more than once",
                   static_cast<unsigned long long>(*twice));
  }

 private:
  void check_item(std::uint32_t id) {
    const auto head = read<pers_hash_entry_s>(items_.record(id));
    if (head.id != id && head.key != 0)
      out_.warning("result cache", "item %u says that it is item %u", id, head.id);
    if (head.key == 0) return;
    keys_.push_back(head.key);
    if (head.key == control_key) return;
    const auto entry = read<cache_entry_s>(items_.record(id) + sizeof(pers_hash_entry_s));
    if (entry.count == 0 && entry.lock == 0) return;
    if (cache_entry_valid(entry, now_))
      ++statistics_.cached_results;
    else
      out_.warning("result cache", "item %u: count %u, lock %u: the next opening empties it", id,
                   entry.count, entry.lock);
  }

  const store_view& items_;
  verify_statistics& statistics_;
  findings& out_;
  const std::uint64_t now_;
  std::vector<std::uint64_t> keys_;
};

class bloom_check {
 public:
  bloom_check(const store_view& units, verify_statistics* statistics, findings* out)
      : units_(units), statistics_(*statistics), out_(*out) {}

  void run() {
    sbf_parameters_s parameters{};
    const std::uint32_t bytes = units_.record_size();
    const auto base = sbf_check_base(units_.record(0), bytes, &parameters);
    if (base == sbf_item_state::blank && units_.size() == 1) return;  // cut off while it was made
    if (base != sbf_item_state::good) {
      out_.warning("Bloom filter", "the base unit is damaged");
      return;
    }
    std::uint64_t items = 0;
    const std::uint32_t end = std::min(units_.size(), 1 + sbf_max_units);
    for (std::uint32_t id = 1; id < end; ++id) items += check_unit(id, parameters);
    const auto counted = read<sbf_unit_s>(units_.record(0)).items;
    statistics_.bloom_items = counted;
    // The base unit counts last: each kill in between leaves it one behind.
    if (counted != items)
      out_.add(counted > items ? verify_severity::warning : verify_severity::note, "Bloom filter",
               "the units hold %llu items, the base unit counts %u",
               static_cast<unsigned long long>(items), counted);
  }

 private:
  // The items of the unit.
  std::uint32_t check_unit(std::uint32_t id, const sbf_parameters_s& parameters) {
    const auto state = sbf_check_unit(units_.record(id), units_.record_size());
    if (state == sbf_item_state::blank && id + 1 == units_.size()) return 0;
    if (state != sbf_item_state::good) {
      out_.warning("Bloom filter", "unit %u is damaged", id);
      return 0;
    }
    const auto unit = read<sbf_unit_s>(units_.record(id));
    ++statistics_.bloom_units;
    if (unit.id != id) out_.warning("Bloom filter", "unit %u says that it is unit %u", id, unit.id);
    if (unit.items > parameters.max_items)
      out_.warning("Bloom filter", "unit %u holds %u items, it has room for %u", id, unit.items,
                   parameters.max_items);
    return unit.items;
  }

  const store_view& units_;
  verify_statistics& statistics_;
  findings& out_;
};

}  // namespace

void check_cache(index_view* index, verify_statistics* statistics, findings* out) {
  const store_view items(index->directory, cache_files(index->name), out, &index->claimed);
  if (items.size() != 0) cache_check(items, statistics, out).run();
}

void check_bloom(index_view* index, verify_statistics* statistics, findings* out) {
  std::uint32_t filters = 0;
  // The size of a unit is part of the file names.
  for (std::uint32_t bytes = sbf_min_unit_bytes; bytes <= sbf_max_unit_bytes; bytes *= 2) {
    const store_view units(index->directory, bloom_files(index->name, bytes), out, &index->claimed);
    if (units.size() == 0) continue;
    if (++filters == 1)
      bloom_check(units, statistics, out).run();
    else
      out->warning("Bloom filter", "a second filter, of %u bytes a unit, is never read", bytes);
  }
}

}  // namespace korvex::verify
