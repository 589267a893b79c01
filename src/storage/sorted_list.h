#ifndef KORVEX_STORAGE_SORTED_LIST_H
#define KORVEX_STORAGE_SORTED_LIST_H

#include <cstdint>
#include <limits>

#include "storage/block_pool.h"

namespace korvex {

// Packed to an alignment of 4, so that it can sit 12 bytes into the 44-byte elements of a working
// list.
struct [[gnu::packed, gnu::aligned(4)]] linklist_link_s {
  linklist_link_s* next;  // towards larger keys; null at the tail
  linklist_link_s* prev;  // towards smaller keys; null at the head
  void* data;             // the payload, never interpreted
  float key;
  std::uint32_t tag;  // 0 after an insertion, then the owner's
};
static_assert(sizeof(linklist_link_s) == 32 && alignof(linklist_link_s) == 4,
              "part of 44-byte elements, at offset 12");

enum class linklist_result_type : int { before = -1, equal = 0, after = 1 };
struct sortedlist_cmpctx_s {
  void* context;
};
using linklist_compare_fn = linklist_result_type (*)(void*, void*, sortedlist_cmpctx_s*);

namespace detail {

// Cuts a sorted list into runs of consecutive links, each known by its first one, so that the way
// to a key is one look at a small array of floats and a few steps. Every run holds between one and
// `longest` links; a run that outgrows that is cut in two, and when the array is full, neighbours
// join and `longest` doubles.
// Invariant   lengths add up to the links of the list, whatever an owner did to their keys.
struct link_runs_s {
  static constexpr std::uint32_t most_runs = 64;
  static constexpr std::uint32_t first_longest = 16;
  static constexpr float no_key = std::numeric_limits<float>::infinity();

  float keys[most_runs];  // of the first links, ascending; no_key from `count` on
  linklist_link_s* starts[most_runs];
  std::uint32_t lengths[most_runs];
  std::uint32_t count = most_runs;
  std::uint32_t longest = first_longest;

  link_runs_s() { clear(); }
  void clear();
  // The last run whose first key is below `key`.
  std::uint32_t run_below(float key) const;
  // A link was put into the run, behind its first link.
  void lengthen(std::uint32_t run) {
    if (++lengths[run] > longest) cut(run);
  }
  void push_front(linklist_link_s* head);
  void push_back(linklist_link_s* tail);
  void pop_front(linklist_link_s* new_head);
  void pop_back() {
    if (--lengths[count - 1] == 0) keys[--count] = no_key;
  }

 private:
  void cut(std::uint32_t run);
  void join_pairs();
};

}  // namespace detail

// Intrusive doubly linked list in ascending order of a float key. Of equal keys the newest comes
// first.
// Threads     one at a time.
// Ownership   links handed to add() belong to the caller and are never freed here. Links that
//             add(void*) takes from the pool return to it all at once, at reset(). The destructor
//             destroys the pool, whoever made it.
// Keys        NaN is stored as the largest finite float, so that the order is always total.
class sortedlist_c {
 public:
  // Without a pool and with a capacity, the list makes its own pool of that many links. pool is an
  // allocpool_s or null; compare is kept and never called.
  sortedlist_c(int capacity, void* pool, linklist_compare_fn compare);
  ~sortedlist_c();
  sortedlist_c(const sortedlist_c&) = delete;
  sortedlist_c& operator=(const sortedlist_c&) = delete;

  void set_debug(int debug) { debug_ = debug; }
  // Forgets all links and empties the pool.
  void reset();

  // -1 when the pool is missing or has no link left, else 0.
  int add(void* data, float key);
  // Inserts a link of the caller with the payload that it carries. 0.
  int add(linklist_link_s* link, float key);
  // data points at the payload word of a link inside a record of the caller: 16 bytes past the
  // link's start. 0.
  int add_using_data(void* data, float key);

  // Unlink the end and return its payload; null when empty.
  void* front();
  void* back();
  void* peek_front() const { return head_ != nullptr ? head_->data : nullptr; }
  void* peek_back() const { return tail_ != nullptr ? tail_->data : nullptr; }
  linklist_link_s* get_head() const { return head_; }
  linklist_link_s* get_tail() const { return tail_; }
  int size() const { return static_cast<int>(count_); }

  // Unlinks the largest keys until n are left; a negative n does nothing.
  void trim(int n);

  // Call fn with each payload until it returns a negative value. fn may not change the list.
  void iterate(int (*fn)(void*)) const;
  void iterate_back(int (*fn)(void*)) const;

  // Links taken from the front since the last reset; for the back the count runs downwards from 0
  // (modulo 2^32).
  std::uint32_t popped_front() const { return popped_front_; }
  std::uint32_t popped_back() const { return popped_back_; }

 private:
  void insert(linklist_link_s* link, float key);
  void insert_inside(linklist_link_s* link, float key);

  linklist_link_s* head_ = nullptr;
  linklist_link_s* tail_ = nullptr;
  std::uint32_t popped_front_ = 0;
  std::uint32_t popped_back_ = 0;
  std::uint64_t count_ = 0;
  int debug_ = 0;
  linklist_compare_fn compare_;
  allocpool_s* pool_;
  detail::link_runs_s runs_;
};

inline void sortedlist_c::insert(linklist_link_s* link, float key) {
  if (key != key) key = 3.4028235e38f;
  link->key = key;
  link->tag = 0;
  link->next = nullptr;
  link->prev = nullptr;
  if (head_ == nullptr) {
    head_ = tail_ = link;
    runs_.push_back(link);
  } else if (head_->key >= key) {
    link->next = head_;
    head_->prev = link;
    head_ = link;
    runs_.push_front(link);
  } else if (key > tail_->key) {
    link->prev = tail_;
    tail_->next = link;
    tail_ = link;
    runs_.push_back(link);
  } else {
    insert_inside(link, key);
  }
  count_++;
}

inline int sortedlist_c::add(linklist_link_s* link, float key) {
  insert(link, key);
  return 0;
}

inline void* sortedlist_c::front() {
  linklist_link_s* link = head_;
  if (link == nullptr) return nullptr;
  head_ = link->next;
  (head_ != nullptr ? head_->prev : tail_) = nullptr;
  runs_.pop_front(head_);
  count_--;
  popped_front_++;
  return link->data;
}

inline void* sortedlist_c::back() {
  linklist_link_s* link = tail_;
  if (link == nullptr) return nullptr;
  tail_ = link->prev;
  (tail_ != nullptr ? tail_->next : head_) = nullptr;
  runs_.pop_back();
  count_--;
  popped_back_--;
  return link->data;
}

}  // namespace korvex

#endif  // KORVEX_STORAGE_SORTED_LIST_H
