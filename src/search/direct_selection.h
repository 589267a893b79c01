#ifndef KORVEX_SEARCH_DIRECT_SELECTION_H
#define KORVEX_SEARCH_DIRECT_SELECTION_H

#include <algorithm>
#include <bit>
#include <cstdint>

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
  // Whether the caller's function is asked about every point of a scan.
  bool asks_everyone() const {
    return options_.filter != nullptr && options_.allowed_ids == nullptr;
  }
  // Ids that a scan steps through.
  double scanned_ids() const {
    return options_.allowed_ids != nullptr ? static_cast<double>(options_.allowed_count)
                                           : static_cast<double>(points_);
  }
  // Whether fewer than `wanted` points may be allowed at all.
  bool surely_fewer_than(std::uint32_t wanted) const { return most_ < wanted; }

  bool allows(std::uint32_t id) const {
    const std::uint32_t public_id = id - 1;
    if (options_.allowed_ids != nullptr && bitstore_is_set(listed_, public_id) == 0) return false;
    if (options_.allowed_bits != nullptr && !bit_set(public_id)) return false;
    if (korvex_is_flag_set_internal(hnsw_, id, flags_hidden) != 0) return false;
    return passes_filter(public_id);
  }

  // Every allowed point once. `seen` is scratch: a list may name an id twice. `visit` returns false
  // to stop.
  template <class Visit>
  void for_each_allowed(bitstore_s* seen, Visit&& visit) const {
    if (options_.allowed_ids == nullptr) {
      for (std::uint32_t id = next_candidate(1); id <= points_; id = next_candidate(id + 1))
        if (allows(id) && !visit(id)) return;
      return;
    }
    bitstore_reset(seen);
    for (std::size_t i = 0; i < options_.allowed_count; ++i) {
      const std::uint32_t public_id = options_.allowed_ids[i];
      if (public_id >= points_ || bitstore_set(seen, public_id) != 0) continue;
      if (allows(public_id + 1) && !visit(public_id + 1)) return;
    }
  }

 private:
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
};

}  // namespace korvex

#endif  // KORVEX_SEARCH_DIRECT_SELECTION_H
