#ifndef KORVEX_ENGINE_BEAM_H
#define KORVEX_ENGINE_BEAM_H

#include <cstdint>
#include <cstring>
#include <memory>

namespace korvex {

// The nearest points that a walk has met, in ascending order of their keys; of equal keys the
// newest comes first. One sorted array: insertion is a search over a few cache lines and a short
// move, no pointers.
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
    entries_.reset(new (std::nothrow) entry[capacity]);
    capacity_ = entries_ ? capacity : 0;
    return entries_ != nullptr;
  }

  std::uint32_t size() const { return size_; }
  std::uint32_t capacity() const { return capacity_; }
  entry& operator[](std::uint32_t position) { return entries_[position]; }
  const entry& operator[](std::uint32_t position) const { return entries_[position]; }
  const entry& back() const { return entries_[size_ - 1]; }
  void pop_back() {
    --size_;
    if (cursor_ > size_) cursor_ = size_;
  }

  // Puts an entry before all others whose key is not smaller. False when the beam is full.
  bool insert(float key, std::uint32_t id, std::uint16_t hops, std::uint16_t marks = 0) {
    if (size_ == capacity_) return false;
    const std::uint32_t position = lower_bound(key);
    entry* const place = entries_.get() + position;
    std::memmove(place + 1, place, (size_ - position) * sizeof(entry));
    *place = entry{key, id, hops, marks};
    ++size_;
    if (position < cursor_) cursor_ = position;
    return true;
  }

  // Puts an entry behind the last one; its key must not be smaller than the last.
  bool append(const entry& value) {
    if (size_ == capacity_) return false;
    entries_[size_++] = value;
    return true;
  }

  // The first entry that was not expanded, or size(). Every insertion before it moves it back.
  std::uint32_t first_unexpanded() {
    while (cursor_ < size_ && (entries_[cursor_].marks & expanded) != 0) ++cursor_;
    return cursor_;
  }

 private:
  std::uint32_t lower_bound(float key) const {
    const entry* base = entries_.get();
    std::uint32_t length = size_;
    while (length > 1) {
      const std::uint32_t half = length / 2;
      base += base[half - 1].key < key ? half : 0;
      length -= half;
    }
    return static_cast<std::uint32_t>(base - entries_.get()) +
           (length == 1 && base->key < key ? 1u : 0u);
  }

  std::unique_ptr<entry[]> entries_;
  std::uint32_t capacity_ = 0;
  std::uint32_t size_ = 0;
  std::uint32_t cursor_ = 0;  // no unexpanded entry stands before it
};

}  // namespace korvex

#endif  // KORVEX_ENGINE_BEAM_H
