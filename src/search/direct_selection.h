#ifndef KORVEX_SEARCH_DIRECT_SELECTION_H
#define KORVEX_SEARCH_DIRECT_SELECTION_H

#include <algorithm>
#include <bit>
#include <cstdint>
#include <utility>
#include <vector>

#include "engine/points.h"
#include "search/direct.h"
#include "storage/bit_store.h"

namespace korvex {

// Which points may be answers of a direct search, and about how many they are.
// Ids   internal
class direct_selection {
 public:
  // `listed` is scratch for the list of allowed ids; it must outlive the selection.
  direct_selection(hnsw_s* hnsw, const direct_options& options, bitstore_s* listed);

  // The points that the call answers from; later ones may be met and are as good.
  std::uint32_t points() const { return points_; }
  // Of all points, an estimate above 0; equal options give equal estimates.
  double share() const { return share_; }
  // What stepping through them costs a scan, in distance evaluations.
  double asking_cost() const {
    if (!settled_.empty()) return points_ * cost_of_a_bit;
    const bool listed = options_.allowed_ids != nullptr;
    return (listed ? static_cast<double>(options_.allowed_count) : points_) *
           (options_.filter != nullptr || listed ? cost_of_asking : cost_of_a_bit);
  }
  // Whether fewer than `wanted` points may be allowed at all.
  bool surely_fewer_than(std::uint32_t wanted) const { return most_ < wanted; }

  bool allows(std::uint32_t id) const {
    const std::uint32_t public_id = id - 1;
    if (!settled_.empty())
      return public_id < points_ && (settled_[public_id / 64] >> (public_id % 64) & 1) != 0 &&
             korvex_is_flag_set_internal(hnsw_, id, flags_hidden) == 0;
    if (options_.allowed_ids != nullptr && bitstore_is_set(listed_, public_id) == 0) return false;
    if (options_.allowed_bits != nullptr && !bit_set(public_id)) return false;
    if (korvex_is_flag_set_internal(hnsw_, id, flags_hidden) != 0) return false;
    return passes_filter(public_id);
  }

  // Visits every allowed point once. `seen` is scratch: a list may name an id twice. False when
  // `late`, asked every now and then, ended it early.
  template <class Late, class Visit>
  bool for_each_allowed(bitstore_s* seen, Late&& late, Visit&& visit) const {
    constexpr std::uint32_t ids_between_looks = 1'024;
    std::uint32_t steps = 0;
    if (options_.allowed_ids == nullptr || !settled_.empty()) {
      for (std::uint32_t id = next_candidate(1); id <= points_; id = next_candidate(id + 1)) {
        if (++steps % ids_between_looks == 0 && late()) return false;
        if (allows(id)) visit(id);
      }
      return true;
    }
    bitstore_reset(seen);
    for (std::size_t i = 0; i < options_.allowed_count; ++i) {
      if (++steps % ids_between_looks == 0 && late()) return false;
      const std::uint32_t public_id = options_.allowed_ids[i];
      if (public_id >= points_ || bitstore_set(seen, public_id) != 0) continue;
      if (allows(public_id + 1)) visit(public_id + 1);
    }
    return true;
  }

  // Asks about every point now and never again: worth it when scans follow. The rest as above.
  template <class Late>
  bool settle(bitstore_s* seen, Late&& late) {
    if (!settled_.empty()) return true;
    std::vector<std::uint64_t> bits(points_ / 64 + 1);
    std::uint32_t count = 0;
    const auto note = [&](std::uint32_t id) {
      bits[(id - 1) / 64] |= std::uint64_t{1} << ((id - 1) % 64);
      ++count;
    };
    if (!for_each_allowed(seen, late, note)) return false;
    settled_ = std::move(bits);
    most_ = count;
    share_ = std::max<double>(count, 0.5) / points_;
    return true;
  }

 private:
  // Measured by bench/direct/filters.
  static constexpr double cost_of_asking = 0.35;
  static constexpr double cost_of_a_bit = 0.005;

  bool bit_set(std::uint32_t public_id) const {
    return public_id < options_.allowed_bit_count &&
           (options_.allowed_bits[public_id / 64] >> (public_id % 64) & 1) != 0;
  }
  bool passes_filter(std::uint32_t public_id) const {
    if (options_.filter == nullptr) return true;
    const std::uint64_t label = hnsw_->runtime->labels ? korvex_get_label(hnsw_, public_id) : 0;
    return options_.filter(options_.filter_context, public_id, label) == 0;
  }
  // The first id from `id` on that the bitmap does not rule out.
  std::uint32_t next_candidate(std::uint32_t id) const;
  void take_list();
  std::uint32_t count_bits() const;
  double filter_share() const;

  hnsw_s* const hnsw_;
  const direct_options& options_;
  bitstore_s* const listed_;
  const std::uint32_t points_;
  std::uint32_t most_;  // no more than these are allowed
  double share_ = 1.0;
  std::vector<std::uint64_t> settled_;  // a bit for each point; empty until it was asked about
};

}  // namespace korvex

#endif  // KORVEX_SEARCH_DIRECT_SELECTION_H
