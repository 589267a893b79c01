#include "engine/runtime.h"

#include "engine/teardown.h"

namespace korvex {

runtime_use::runtime_use(korvex_runtime_s* runtime) {
  if (runtime == nullptr) return;
  std::uint64_t users = runtime->users.load(std::memory_order_relaxed);
  do {
    if ((users & runtime_closed) != 0) return;
  } while (!runtime->users.compare_exchange_weak(users, users + 1, std::memory_order_acquire));
  runtime_ = runtime;
}

void runtime_release_use(korvex_runtime_s* runtime) {
  const std::uint64_t before = runtime->users.fetch_sub(1, std::memory_order_acq_rel);
  if (before != (runtime_closed | 1)) return;
  korvex_release(runtime);
  runtime->users_gone.store(true, std::memory_order_release);
  runtime_release_handle(runtime);
}

void runtime_add_handle(korvex_runtime_s* runtime) {
  runtime->handles.fetch_add(1, std::memory_order_relaxed);
}

void runtime_release_handle(korvex_runtime_s* runtime) {
  if (runtime->handles.fetch_sub(1, std::memory_order_acq_rel) == 1) delete runtime;
}

}  // namespace korvex
