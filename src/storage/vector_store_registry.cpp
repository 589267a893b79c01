#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <iterator>
#include <mutex>

#include "runtime/log.h"
#include "storage/vector_store_internal.h"

namespace korvex {
namespace {

// The persistent stores of the process. The slots serve vector_sync_all; the list knows all live
// ones, also those that found no slot.
// Threads     everything under the mutex, which is not held while a store is flushed: a store in
//             work is counted, and its destruction waits for the count.
struct store_registry {
  std::mutex mutex;
  std::condition_variable sync_ended;
  vector_manager_s* slots[32] = {};  // null: free, or its store is dead
  vector_manager_s* live = nullptr;
};

// Never destroyed: stores may be destroyed by threads that outlive main.
store_registry& registry() {
  static store_registry* const only = new store_registry;
  return *only;
}

// Whether two stores would open the same files. Kinds can share a block code, and then they share
// it for every block.
bool same_files(const vector_manager_s& a, const vector_manager_s& b) {
  if (a.path_length != b.path_length || std::strcmp(a.extension, b.extension) != 0 ||
      std::memcmp(a.path, b.path, static_cast<std::size_t>(a.path_length)) != 0)
    return false;
  char code_a[hex_compress_room], code_b[hex_compress_room];
  string_hex_compress(std::uint64_t{a.kind} << 32, true, code_a);
  string_hex_compress(std::uint64_t{b.kind} << 32, true, code_b);
  return std::strcmp(code_a, code_b) == 0;
}

void take_slot(store_registry& r, vector_manager_s& m) {
  auto* const slot = std::find(std::begin(r.slots), std::end(r.slots), nullptr);
  if (slot != std::end(r.slots))
    *slot = &m;
  else
    KORVEX_LOG_CRITICAL("vector_manager pool limit reached!\n");
}

}  // namespace

namespace store {

bool register_store(vector_manager_s& m) {
  store_registry& r = registry();
  const std::lock_guard guard(r.mutex);
  for (const vector_manager_s* other = r.live; other != nullptr; other = other->next_live) {
    if (!same_files(m, *other)) continue;
    KORVEX_LOG("the files %.*s... belong to another open store\n", m.path_length, m.path);
    return false;
  }
  m.next_live = r.live;
  r.live = &m;
  take_slot(r, m);
  return true;
}

void unregister_store(vector_manager_s& m) {
  store_registry& r = registry();
  std::unique_lock guard(r.mutex);
  std::replace(std::begin(r.slots), std::end(r.slots), &m, static_cast<vector_manager_s*>(nullptr));
  vector_manager_s** link = &r.live;
  while (*link != &m) link = &(*link)->next_live;
  *link = m.next_live;
  r.sync_ended.wait(guard, [&m] { return m.syncs_in_progress == 0; });
}

}  // namespace store

int vector_sync_all(unsigned min_interval) {
  store_registry& r = registry();
  for (vector_manager_s* const& slot : r.slots) {
    std::unique_lock guard(r.mutex);
    vector_manager_s* m = slot;
    if (m == nullptr) continue;
    m->syncs_in_progress += 1;
    guard.unlock();
    vector_sync(m, min_interval);
    guard.lock();
    m->syncs_in_progress -= 1;
    r.sync_ended.notify_all();
  }
  return 0;
}

}  // namespace korvex
