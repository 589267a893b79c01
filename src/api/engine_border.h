#ifndef KORVEX_API_ENGINE_BORDER_H
#define KORVEX_API_ENGINE_BORDER_H

#include "api/border.h"
#include "korvex/engine.h"

// What the C functions on the bare record share.
namespace korvex {

// The body's result under a claim on the index, so that another thread may give the index up
// meanwhile; `failure` without an index, once it is closed, and when something is thrown.
template <class Result, class Body>
Result on_index(hnsw_s* index, const char* function, Result failure, Body&& body) noexcept {
  if (index == nullptr) return failure;
  return with_open_index(index->runtime, function, failure, body);
}

template <class Body>
void on_index(hnsw_s* index, const char* function, Body&& body) noexcept {
  on_index(index, function, 0, [&body] {
    body();
    return 0;
  });
}

// Copies as much of a versioned record as its caller's `size` asks for. False when not even the
// size fits.
template <class Record>
bool hand_over_record(Record filled, Record* to) {
  if (to == nullptr || to->size < sizeof to->size) return false;
  filled.size = to->size < sizeof filled ? to->size : static_cast<uint32_t>(sizeof filled);
  __builtin_memcpy(to, &filled, filled.size);
  return true;
}

}  // namespace korvex

#endif  // KORVEX_API_ENGINE_BORDER_H
