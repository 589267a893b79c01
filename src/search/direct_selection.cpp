#include "search/direct_selection.h"

namespace korvex {

namespace {

constexpr std::uint32_t filter_samples = 256;

}  // namespace

direct_selection::direct_selection(hnsw_s* hnsw, const direct_options& options, bitstore_s* listed)
    : hnsw_(hnsw),
      options_(options),
      listed_(listed),
      points_(load_counter(hnsw->added)),
      most_(points_) {
  if (points_ == 0) return;
  take_list();
  if (options.allowed_bits != nullptr) most_ = std::min(most_, count_bits());
  const std::uint32_t hidden = std::min(hnsw->runtime->hidden.load(), points_);
  const double points = points_;
  // Parts that are known exactly, and a sample of what only the caller knows; they are taken for
  // independent of each other, and a walk that finds less than promised tells otherwise.
  share_ = most_ / points * (1.0 - hidden / points);
  most_ = std::min(most_, points_ - hidden);
  if (options.filter != nullptr && most_ != 0) share_ *= filter_share();
  share_ = std::max(share_, 0.5 / points);
}

void direct_selection::take_list() {
  if (options_.allowed_ids == nullptr) return;
  bitstore_reset(listed_);
  std::uint32_t distinct = 0;
  for (std::size_t i = 0; i < options_.allowed_count; ++i) {
    const std::uint32_t public_id = options_.allowed_ids[i];
    if (public_id < points_ && bitstore_set(listed_, public_id) == 0) ++distinct;
  }
  most_ = distinct;
}

std::uint32_t direct_selection::count_bits() const {
  const std::size_t bits = std::min<std::size_t>(options_.allowed_bit_count, points_);
  std::uint32_t count = 0;
  for (std::size_t word = 0; word < bits / 64; ++word)
    count += static_cast<std::uint32_t>(std::popcount(options_.allowed_bits[word]));
  if (bits % 64 != 0)
    count += static_cast<std::uint32_t>(
        std::popcount(options_.allowed_bits[bits / 64] & ((std::uint64_t{1} << bits % 64) - 1)));
  return count;
}

// Steps of the golden ratio spread over all ids, and repeat with no period of the labels.
double direct_selection::filter_share() const {
  const std::uint32_t samples = std::min(filter_samples, points_);
  const auto step = static_cast<std::uint64_t>(points_ * 0.6180339887) | 1;
  std::uint32_t passed = 0;
  for (std::uint32_t i = 0; i < samples; ++i)
    passed += passes_filter(static_cast<std::uint32_t>(i * step % points_)) ? 1 : 0;
  return std::max<double>(passed, 0.5) / samples;
}

std::uint32_t direct_selection::next_candidate(std::uint32_t id) const {
  const std::uint64_t* words = settled_.empty() ? options_.allowed_bits : settled_.data();
  if (words == nullptr) return id;
  const std::size_t bits =
      settled_.empty() ? std::min<std::size_t>(options_.allowed_bit_count, points_) : points_;
  for (std::size_t public_id = id - 1; public_id < bits;) {
    const std::uint64_t rest = words[public_id / 64] >> (public_id % 64);
    if (rest != 0) {
      const std::size_t found = public_id + static_cast<std::size_t>(std::countr_zero(rest));
      return found < bits ? static_cast<std::uint32_t>(found) + 1 : points_ + 1;
    }
    public_id = (public_id / 64 + 1) * 64;
  }
  return points_ + 1;
}

}  // namespace korvex
