#ifndef KORVEX_API_BORDER_H
#define KORVEX_API_BORDER_H

#include <exception>

#include "engine/runtime.h"
#include "runtime/log.h"

// What every operation of the binary contract shares: no exception leaves it, each refusal is one
// line, and objects that outlive their index answer without touching it.
namespace korvex {

inline void log_refusal(const char* operation, const char* reason) {
  KORVEX_LOG_CRITICAL("%s: %s\n", operation, reason);
}

// The body's result, or `failure` after one line when something was thrown.
template <class Result, class Body>
Result at_border(const char* operation, Result failure, Body&& body) noexcept {
  try {
    return body();
  } catch (const std::exception& error) {
    log_refusal(operation, error.what());
  } catch (...) {
    log_refusal(operation, "an unknown exception");
  }
  return failure;
}

template <class Body>
void at_border(const char* operation, Body&& body) noexcept {
  at_border(operation, 0, [&body] {
    body();
    return 0;
  });
}

// The same with a claim on the index; `failure` after one line once the index is closed. Nothing of
// the object that made the call is touched after the body: a callback inside it may have destroyed
// that object.
template <class Result, class Body>
Result with_open_index(korvex_runtime_s* runtime, const char* operation, Result failure,
                       Body&& body) noexcept {
  return at_border(operation, failure, [&]() -> Result {
    runtime_use use(runtime);
    if (use) return body();
    log_refusal(operation, "the index was destroyed");
    return failure;
  });
}

// A claim for destructors of objects that engine threads may be calling back: also succeeds on a
// closed index while any thread is still inside it. Empty once nobody is, and nobody can come back
// in.
class late_use {
 public:
  explicit late_use(korvex_runtime_s* runtime) {
    std::uint64_t users = runtime->users.load(std::memory_order_acquire);
    do {
      if ((users & ~runtime_closed) == 0) return;
    } while (!runtime->users.compare_exchange_weak(users, users + 1, std::memory_order_acquire));
    runtime_ = runtime;
  }
  ~late_use() {
    if (runtime_ != nullptr) runtime_release_use(runtime_);
  }
  late_use(const late_use&) = delete;
  late_use& operator=(const late_use&) = delete;

  explicit operator bool() const { return runtime_ != nullptr; }

 private:
  korvex_runtime_s* runtime_ = nullptr;
};

}  // namespace korvex

#endif  // KORVEX_API_BORDER_H
