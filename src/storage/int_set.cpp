#include "storage/int_set.h"

#include <bit>
#include <cstring>

#include "runtime/log.h"
#include "runtime/platform/memory.h"

namespace korvex {

namespace {

struct int_entry {
  std::uint32_t key;
  std::uint8_t flag;
  std::uint8_t spare;
  std::uint16_t session;
};
static_assert(sizeof(int_entry) == 8, "eight entries a cache line");

int_entry* table_of(const int32find_s* s) {
  return static_cast<int_entry*>(s->table);
}

bool is_empty(const int32find_s* s, const int_entry& entry) {
  return entry.session != s->session;
}

// The first entry of the key's chain that is empty or holds the key; null, with a line, when there
// is none.
int_entry* probe(const int32find_s* s, std::uint32_t key) {
  int_entry* table = table_of(s);
  for (std::uint32_t i = 0; i < s->capacity; i++) {
    int_entry& entry = table[(key + i) & s->mask];
    if (is_empty(s, entry) || entry.key == key) return &entry;
  }
  KORVEX_LOG("*** BUG *** buffer full: session %u len %u count %u key %u name (%s)\n", s->session,
             s->capacity, s->capacity, key, s->name);
  return nullptr;
}

void fill(const int32find_s* s, int_entry* entry, std::uint32_t key, std::uint8_t flag) {
  *entry = int_entry{key, flag, 0, s->session};
}

}  // namespace

void int32find_init(int32find_s* s, int size, const char* name) {
  *s = int32find_s{};
  pthread_mutex_init(&s->mutex, nullptr);
  s->session = 1;
  if (name != nullptr) std::strncpy(s->name, name, sizeof(s->name) - 1);
  if (size <= 0) return;
  const std::uint32_t capacity = std::bit_ceil(static_cast<std::uint32_t>(size));
  const std::size_t bytes = std::size_t{capacity} * sizeof(int_entry);
  s->table = platform::aligned_malloc(bytes, 64);
  if (s->table == nullptr) return;
  std::memset(s->table, 0, bytes);
  s->capacity = capacity;
  s->mask = capacity - 1;
  s->initialised = 1;
}

void int32find_reset(int32find_s* s) {
  s->previous_session = s->session++;
  s->count = 0;
  if (s->session != 0) return;
  // Stamps of 65,535 resets ago would count as current again.
  if (s->table != nullptr) std::memset(s->table, 0, std::size_t{s->capacity} * sizeof(int_entry));
  s->session = 1;
}

void int32find_free(int32find_s* s) {
  if (s->initialised == 0) return;
  platform::aligned_free(s->table);
  pthread_mutex_destroy(&s->mutex);
  s->table = nullptr;
  s->capacity = 0;
  s->mask = 0;
  s->initialised = 0;
}

std::uint8_t int32find_get(int32find_s* s, std::uint32_t key) {
  const int_entry* entry = probe(s, key);
  return entry == nullptr || is_empty(s, *entry) ? 0 : entry->flag;
}

void int32find_set(int32find_s* s, std::uint32_t key, std::uint8_t flag) {
  int32find_get_set_forced(s, key, flag);
}

void int32find_set_locked(int32find_s* s, std::uint32_t key, std::uint8_t flag) {
  pthread_mutex_lock(&s->mutex);
  int32find_set(s, key, flag);
  pthread_mutex_unlock(&s->mutex);
}

std::uint8_t int32find_get_set(int32find_s* s, std::uint32_t key, std::uint8_t expected,
                               std::uint8_t flag) {
  int_entry* entry = probe(s, key);
  if (entry == nullptr) return 0;
  if (is_empty(s, *entry)) {
    if (expected == 0) fill(s, entry, key, flag);
    return 0;
  }
  const std::uint8_t before = entry->flag;
  if (before == expected) entry->flag = flag;
  return before;
}

std::uint8_t int32find_get_set_forced(int32find_s* s, std::uint32_t key, std::uint8_t flag) {
  int_entry* entry = probe(s, key);
  if (entry == nullptr) return 0;
  const std::uint8_t before = is_empty(s, *entry) ? 0 : entry->flag;
  fill(s, entry, key, flag);
  return before;
}

std::uint32_t int32find_clear(int32find_s* s, std::uint32_t key) {
  int_entry* entry = probe(s, key);
  if (entry == nullptr) return 0;
  entry->key = 0;
  entry->session = 0;
  return static_cast<std::uint32_t>(entry - table_of(s));
}

std::uint32_t int32find_clear_locked(int32find_s* s, std::uint32_t key) {
  pthread_mutex_lock(&s->mutex);
  const std::uint32_t slot = int32find_clear(s, key);
  pthread_mutex_unlock(&s->mutex);
  return slot;
}

}  // namespace korvex
