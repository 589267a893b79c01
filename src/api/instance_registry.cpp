#include "api/instance_registry.h"

#include <algorithm>
#include <new>
#include <thread>

#include "runtime/platform/faults.h"

namespace korvex {

namespace {

constexpr std::uint32_t first_capacity = 64;
constexpr std::uint32_t first_free_capacity = 128;

// Zero-filled, or null.
template <class T>
T* allocate(std::size_t count) {
  return platform::fault_injected(platform::fault_point::heap) ? nullptr
                                                               : new (std::nothrow) T[count]();
}

}  // namespace

struct instance_registry::slot_table {
  std::uint32_t capacity;
  std::atomic<KorvexImpl*>* slots;
  slot_table* replaced;  // lookups that began earlier may still read it
};

class instance_registry::locked {
 public:
  explicit locked(instance_registry* registry) : lock_(registry->lock_) {
    while (lock_.exchange(1) != 0) std::this_thread::yield();
  }
  ~locked() { lock_.store(0, std::memory_order_release); }
  locked(const locked&) = delete;
  locked& operator=(const locked&) = delete;

 private:
  std::atomic<std::uint32_t>& lock_;
};

std::uint32_t instance_registry::add(KorvexImpl* object) {
  locked guard(this);
  const std::uint32_t id = free_count_ != 0 ? free_ids_[--free_count_] : next_id_.fetch_add(1);
  slot_table* const table = table_for(id);
  if (table != nullptr && id < table->capacity)
    table->slots[id].store(object, std::memory_order_release);
  return id;
}

void instance_registry::release(std::uint32_t id) {
  locked guard(this);
  slot_table* const table = table_.load(std::memory_order_relaxed);
  if (id == 0 || table == nullptr || id >= table->capacity) return;
  table->slots[id].store(nullptr, std::memory_order_release);
  if (room_for_free_id()) free_ids_[free_count_++] = id;
}

KorvexImpl* instance_registry::find(std::uint32_t id) const {
  const slot_table* const table = table_.load(std::memory_order_acquire);
  if (table == nullptr || id >= table->capacity) return nullptr;
  return table->slots[id].load(std::memory_order_acquire);
}

void instance_registry::clear() {
  locked guard(this);
  for (slot_table* table = table_.exchange(nullptr); table != nullptr;) {
    slot_table* const replaced = table->replaced;
    delete[] table->slots;
    delete table;
    table = replaced;
  }
  delete[] free_ids_;
  free_ids_ = nullptr;
  free_count_ = 0;
  free_capacity_ = 0;
}

instance_registry::slot_table* instance_registry::make_table(std::uint32_t capacity) {
  auto* const slots = allocate<std::atomic<KorvexImpl*>>(capacity);
  if (slots == nullptr) return nullptr;
  auto* const table = new (std::nothrow) slot_table{capacity, slots, nullptr};
  if (table == nullptr) delete[] slots;
  return table;
}

// The table that holds `id`, grown once if need be; an id that lies further out, because growth had
// failed before, stays without a slot.
instance_registry::slot_table* instance_registry::table_for(std::uint32_t id) {
  slot_table* const table = table_.load(std::memory_order_relaxed);
  if (table != nullptr && id < table->capacity) return table;
  slot_table* const larger = make_table(table == nullptr ? first_capacity : 2 * table->capacity);
  if (larger == nullptr) return table;
  for (std::uint32_t slot = 1; table != nullptr && slot < table->capacity;
       ++slot)  // id 0 is never issued
    larger->slots[slot].store(table->slots[slot].load(std::memory_order_relaxed),
                              std::memory_order_relaxed);
  larger->replaced = table;
  table_.store(larger, std::memory_order_release);
  return larger;
}

bool instance_registry::room_for_free_id() {
  if (free_count_ < free_capacity_) return true;
  const std::uint32_t capacity = free_capacity_ == 0 ? first_free_capacity : 2 * free_capacity_;
  auto* const larger = allocate<std::uint32_t>(capacity);
  if (larger == nullptr) return false;
  std::copy_n(free_ids_, free_count_, larger);
  delete[] free_ids_;
  free_ids_ = larger;
  free_capacity_ = capacity;
  return true;
}

}  // namespace korvex
