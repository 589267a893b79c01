#include "storage/sorted_list.h"

#include <algorithm>

#include "runtime/log.h"

namespace korvex {

namespace {

constexpr std::uint64_t data_offset = 16;
constexpr int link_bytes = sizeof(linklist_link_s);

}  // namespace

namespace detail {

void link_runs_s::clear() {
  std::fill_n(keys, count, no_key);
  count = 0;
  longest = first_longest;
}

std::uint32_t link_runs_s::run_below(float key) const {
  // Whole blocks of eight, without a branch on the keys: the entries behind the last run are below
  // nothing.
  std::uint32_t below = 0;
  for (const float* block = keys; block < keys + count; block += 8) {
    for (int i = 0; i < 8; i++) below += block[i] < key ? 1 : 0;
  }
  return below - (below != 0 ? 1 : 0);
}

void link_runs_s::push_front(linklist_link_s* head) {
  starts[0] = head;
  keys[0] = head->key;
  lengthen(0);
}

void link_runs_s::push_back(linklist_link_s* tail) {
  if (count != 0) return lengthen(count - 1);
  starts[0] = tail;
  keys[0] = tail->key;
  lengths[0] = 1;
  count = 1;
}

void link_runs_s::pop_front(linklist_link_s* new_head) {
  if (--lengths[0] != 0) {
    starts[0] = new_head;
    keys[0] = new_head->key;
    return;
  }
  count--;
  std::copy_n(keys + 1, count, keys);
  std::copy_n(starts + 1, count, starts);
  std::copy_n(lengths + 1, count, lengths);
  keys[count] = no_key;
}

void link_runs_s::cut(std::uint32_t run) {
  if (count == most_runs) {
    join_pairs();
    run /= 2;
    if (lengths[run] <= longest) return;
  }
  const std::uint32_t kept = lengths[run] / 2;
  linklist_link_s* middle = starts[run];
  for (std::uint32_t i = 0; i < kept; i++) middle = middle->next;
  std::copy_backward(keys + run + 1, keys + count, keys + count + 1);
  std::copy_backward(starts + run + 1, starts + count, starts + count + 1);
  std::copy_backward(lengths + run + 1, lengths + count, lengths + count + 1);
  count++;
  keys[run + 1] = middle->key;
  starts[run + 1] = middle;
  lengths[run + 1] = lengths[run] - kept;
  lengths[run] = kept;
}

void link_runs_s::join_pairs() {
  count = most_runs / 2;
  for (std::uint32_t i = 0; i < count; i++) {
    keys[i] = keys[2 * i];
    starts[i] = starts[2 * i];
    lengths[i] = lengths[2 * i] + lengths[2 * i + 1];
  }
  std::fill(keys + count, keys + most_runs, no_key);
  longest *= 2;
}

}  // namespace detail

sortedlist_c::sortedlist_c(int capacity, void* pool, linklist_compare_fn compare)
    : compare_(compare), pool_(static_cast<allocpool_s*>(pool)) {
  if (capacity != 0 && pool_ == nullptr) pool_ = allocpool_init(link_bytes, capacity);
}

sortedlist_c::~sortedlist_c() {
  if (pool_ != nullptr) allocpool_destroy(pool_);
}

void sortedlist_c::reset() {
  if (pool_ != nullptr) allocpool_reset(pool_);
  head_ = tail_ = nullptr;
  popped_front_ = popped_back_ = 0;
  count_ = 0;
  runs_.clear();
}

int sortedlist_c::add(void* data, float key) {
  auto* link = static_cast<linklist_link_s*>(allocpool_alloc(pool_));
  if (link == nullptr) return -1;
  link->data = data;
  insert(link, key);
  return 0;
}

int sortedlist_c::add_using_data(void* data, float key) {
  KORVEX_LOG("offset %d\n", static_cast<int>(data_offset));
  insert(reinterpret_cast<linklist_link_s*>(static_cast<char*>(data) - data_offset), key);
  return 0;
}

void sortedlist_c::trim(int n) {
  // A negative n becomes a limit that no count exceeds.
  const auto limit = static_cast<std::uint64_t>(std::int64_t{n});
  while (count_ > limit) back();
}

void sortedlist_c::iterate(int (*fn)(void*)) const {
  for (const linklist_link_s* link = head_; link != nullptr; link = link->next) {
    if (fn(link->data) < 0) return;
  }
}

void sortedlist_c::iterate_back(int (*fn)(void*)) const {
  for (const linklist_link_s* link = tail_; link != nullptr; link = link->prev) {
    if (fn(link->data) < 0) return;
  }
}

// Requires head.key < key <= tail.key.
void sortedlist_c::insert_inside(linklist_link_s* link, float key) {
  std::uint32_t run = runs_.run_below(key);
  linklist_link_s* at = runs_.starts[run];
  if (at->key >= key) {
    KORVEX_LOG("*** BUG *** current val > val: %.6f %.6f\n", static_cast<double>(at->key),
               static_cast<double>(key));
    run = 0;
    at = head_;
  }
  // The next run starts at or above the key; to stop there keeps the lengths right even in a list
  // whose keys were changed under it.
  const linklist_link_s* end = run + 1 < runs_.count ? runs_.starts[run + 1] : nullptr;
  linklist_link_s* next = at->next;
  if (at->key > key) {
    KORVEX_LOG("*** BUG *** current val > va(2)l\n");
  } else {
    while (next != end && next->key < key) {
      at = next;
      next = at->next;
    }
  }
  link->prev = at;
  link->next = next;
  at->next = link;
  (next != nullptr ? next->prev : tail_) = link;
  runs_.lengthen(run);
}

}  // namespace korvex
