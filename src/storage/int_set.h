#ifndef KORVEX_STORAGE_INT_SET_H
#define KORVEX_STORAGE_INT_SET_H

#include <pthread.h>

#include <cstdint>

#include "storage/bit_store.h"  // the same question, over the whole id space

namespace korvex {

// Fixed-capacity hash set of 32-bit ids with one flag byte an id; emptied in constant time by a new
// session number.
// Threads     one thread at a time; the _locked forms exclude each other only.
// Capacity    the requested size, rounded up to a power of two; a full set reports a line and acts
//             as if the key were absent.
// Layout      a plain record, so that it can be a member of records that live in files; it must be
//             initialised in each process.
struct int32find_s {
  pthread_mutex_t mutex;  // of the _locked forms
  std::uint64_t count;
  std::uint32_t capacity;
  std::uint32_t mask;
  std::uint16_t session;  // an entry is occupied only when it carries this; never 0
  std::uint16_t previous_session;
  char name[32];
  void* table;
  std::uint32_t initialised;
};

// A failed allocation leaves a set of capacity 0. name may be null.
void int32find_init(int32find_s* s, int size, const char* name);
void int32find_reset(int32find_s* s);
// Releases the table; a zeroed record is left alone. The record must be initialised again before it
// is used again.
void int32find_free(int32find_s* s);

// The key's flag, 0 when it is not in the set.
std::uint8_t int32find_get(int32find_s* s, std::uint32_t key);
void int32find_set(int32find_s* s, std::uint32_t key, std::uint8_t flag);
void int32find_set_locked(int32find_s* s, std::uint32_t key, std::uint8_t flag);
// The previous flag (0: was absent). The new one is stored only when the previous one equals
// expected.
std::uint8_t int32find_get_set(int32find_s* s, std::uint32_t key, std::uint8_t expected,
                               std::uint8_t flag);
// The previous flag (0: was absent); the new one is always stored.
std::uint8_t int32find_get_set_forced(int32find_s* s, std::uint32_t key, std::uint8_t flag);
// Empties the key's entry and returns its slot. No tombstone: until the next reset, keys stored
// behind it in the same chain are no longer found.
std::uint32_t int32find_clear(int32find_s* s, std::uint32_t key);
std::uint32_t int32find_clear_locked(int32find_s* s, std::uint32_t key);

class Int32Find {
 public:
  explicit Int32Find(int size) { int32find_init(&set_, size, nullptr); }
  ~Int32Find() { int32find_free(&set_); }
  Int32Find(const Int32Find&) = delete;
  Int32Find& operator=(const Int32Find&) = delete;

  void reset() { int32find_reset(&set_); }
  std::uint8_t get(unsigned key) { return int32find_get(&set_, key); }
  void set(unsigned key, unsigned char flag) { int32find_set(&set_, key, flag); }

 private:
  int32find_s set_;
};

}  // namespace korvex

#endif  // KORVEX_STORAGE_INT_SET_H
