#ifndef KORVEX_ENGINE_BEAM_H
#define KORVEX_ENGINE_BEAM_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>

namespace korvex {

// The nearest points that a walk has met, in ascending order of their keys; of equal keys the
// newest comes first. Sorted, their keys in an array of their own: insertion counts the smaller ones over a few
// cache lines and makes a short move, no pointers.
// Threads     one walk at a time.
class walk_beam {
 public:
  struct entry {
    float key;
    std::uint32_t id;
    std::uint16_t hops;
    std::uint16_t marks;
  };
  static constexpr std::uint16_t expanded = 1;

  // Empties the beam and makes room for `capacity` entries. False when memory is short.
  bool reset(std::uint32_t capacity) {
    size_ = 0;
    cursor_ = 0;
    if (capacity <= capacity_) return true;
    keys_.reset(new (std::nothrow) float[capacity + counted_at_once]);
    points_.reset(new (std::nothrow) point[capacity]);
    const bool made = keys_ != nullptr && points_ != nullptr;
    capacity_ = made ? capacity : 0;
    return made;
  }

  std::uint32_t size() const { return size_; }
  std::uint32_t capacity() const { return capacity_; }
  entry operator[](std::uint32_t position) const {
    const point& at = points_[position];
    return {keys_[position], at.id, at.hops, at.marks};
  }
  entry back() const { return (*this)[size_ - 1]; }
  void pop_back() {
    keys_[--size_] = unused;
    if (cursor_ > size_) cursor_ = size_;
  }

  // Puts an entry before all others whose key is not smaller; a key is never NaN, see key_of. False when the beam is
  // full.
  bool insert(float key, std::uint32_t id, std::uint16_t hops, std::uint16_t marks = 0) {
    if (size_ == capacity_) return false;
    pad_keys();
    const std::uint32_t position = lower_bound(key);
    float* const key_place = keys_.get() + position;
    point* const place = points_.get() + position;
    std::memmove(key_place + 1, key_place, (size_ - position) * sizeof(float));
    std::memmove(place + 1, place, (size_ - position) * sizeof(point));
    *key_place = key;
    *place = {id, hops, marks};
    ++size_;
    if (position < cursor_) cursor_ = position;
    return true;
  }

  // Puts an entry behind the last one; its key must not be smaller than the last.
  bool append(const entry& value) {
    if (size_ == capacity_) return false;
    pad_keys();
    keys_[size_] = value.key;
    points_[size_++] = {value.id, value.hops, value.marks};
    return true;
  }

  bool is_expanded(std::uint32_t position) const {
    return (points_[position].marks & expanded) != 0;
  }
  void set_expanded(std::uint32_t position) { points_[position].marks |= expanded; }

  // The first entry that was not expanded, or size(). Every insertion before it moves it back.
  std::uint32_t first_unexpanded() {
    while (cursor_ < size_ && is_expanded(cursor_)) ++cursor_;
    return cursor_;
  }

 private:
  struct point {
    std::uint32_t id;
    std::uint16_t hops;
    std::uint16_t marks;
  };
  static constexpr std::uint32_t counted_at_once = 16;
  static constexpr std::uint32_t halved_above = 8 * counted_at_once;
  static constexpr float unused = std::numeric_limits<float>::infinity();

  // Before a key is put behind the last one: what is behind it, up to the end of its sixteen, is smaller than nothing.
  void pad_keys() {
    if (size_ % counted_at_once == 0) std::fill_n(keys_.get() + size_, counted_at_once, unused);
  }

  // Almost without branches that a processor foresees wrongly, and with few steps that wait for each other.
  std::uint32_t lower_bound(float key) const {
    const float* keys = keys_.get();
    std::uint32_t length = size_;
    while (length > halved_above) {
      const std::uint32_t half = length / 2 / counted_at_once * counted_at_once;
      const std::uint32_t behind = keys[half - 1] < key;
      keys += half & (0u - behind);
      length = behind != 0 ? length - half : half;
    }
    auto position = static_cast<std::uint32_t>(keys - keys_.get());
    for (const float* const end = keys + length; keys < end; keys += counted_at_once)
      for (std::uint32_t i = 0; i < counted_at_once; ++i) position += keys[i] < key ? 1 : 0;
    return position;
  }

  // Counting reads on to the end of a sixteen, so there are capacity_ + 16.
  std::unique_ptr<float[]> keys_;
  std::unique_ptr<point[]> points_;
  std::uint32_t capacity_ = 0;
  std::uint32_t size_ = 0;
  std::uint32_t cursor_ = 0;  // no unexpanded entry stands before it
};

}  // namespace korvex

#endif  // KORVEX_ENGINE_BEAM_H
