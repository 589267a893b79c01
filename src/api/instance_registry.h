#ifndef KORVEX_API_INSTANCE_REGISTRY_H
#define KORVEX_API_INSTANCE_REGISTRY_H

#include <atomic>
#include <cstdint>

namespace korvex {

class KorvexImpl;

// Small ids for index objects, and the way back from an id to its object.
// Threads     lookups take no lock and may run beside growth; everything else is under a spin lock
//             that is held for a few steps only.
// Ownership   none of the objects. A slot whose id was not given back keeps its pointer after the
//             object has gone.
// Invariant   a table is published whole and never shrinks; the one that it replaces stays readable
//             behind it.
class instance_registry {
 public:
  constexpr instance_registry() = default;
  instance_registry(const instance_registry&) = delete;
  instance_registry& operator=(const instance_registry&) = delete;

  // Registers an object: the id that was given back last, else the next new one, from 1. When
  // memory is short the id is valid but find() does not know it.
  std::uint32_t add(KorvexImpl* object);
  // Clears the slot and keeps the id for reuse. An id that no slot exists for is ignored.
  void release(std::uint32_t id);
  // The object of an id, or null.
  KorvexImpl* find(std::uint32_t id) const;
  // Frees the memory; the objects stay. For the end of the process: a lookup must not run beside
  // it.
  void clear();

 private:
  struct slot_table;
  class locked;

  static slot_table* make_table(std::uint32_t capacity);
  slot_table* table_for(std::uint32_t id);
  bool room_for_free_id();

  std::atomic<slot_table*> table_{nullptr};  // made by the first registration
  std::atomic<std::uint32_t> next_id_{1};
  std::uint32_t* free_ids_ = nullptr;
  std::uint32_t free_count_ = 0;
  std::uint32_t free_capacity_ = 0;
  std::atomic<std::uint32_t> lock_{0};
};

}  // namespace korvex

#endif  // KORVEX_API_INSTANCE_REGISTRY_H
