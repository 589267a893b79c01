#include "runtime/sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "runtime/platform/clock.h"
#include "runtime/platform/faults.h"
#include "runtime/threads.h"

namespace korvex {
namespace {

struct record : cond_var_s {
  record() { EXPECT_EQ(cond_init(this), 0); }
  ~record() { cond_destroy(this); }
};

std::uint64_t elapsed_ms(std::uint64_t since_ns) {
  return (platform::monotonic_ns() - since_ns) / 1'000'000;
}

TEST(Sync, ASignalLatchesUntilReset) {
  record cond;
  EXPECT_EQ(cond_signal_if_waiting(&cond), 0);
  EXPECT_EQ(cond_wait_timeout(&cond, 1), 1) << "nobody waited, so the flag stays clear";
  using setter = void (*)(cond_var_s*);
  for (const setter set : {setter{cond_set}, setter{[](cond_var_s* c) { cond_signal(c); }},
                           setter{[](cond_var_s* c) { cond_broadcast(c); }}}) {
    set(&cond);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(cond_wait_timeout(&cond, 60'000), 0);
    EXPECT_EQ(cond_wait_for_done(&cond), 0);
    cond_reset(&cond);
    const std::uint64_t start = platform::monotonic_ns();
    EXPECT_EQ(cond_wait_timeout(&cond, 20), 1);
    EXPECT_GE(elapsed_ms(start), 19u);
  }
}

TEST(Sync, EveryKindOfWaitIsWoken) {
  record cond;
  std::atomic<int> woken{0};
  using waiter = int (*)(cond_var_s*);
  const auto run = [&](waiter wait, int (*wake)(cond_var_s*), int n) {
    woken = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i) threads.emplace_back([&] { woken += wait(&cond) == 0 ? 1 : 0; });
    while (cond_is_waiting(&cond) != static_cast<std::uint32_t>(n)) std::this_thread::yield();
    EXPECT_EQ(wake(&cond), 0);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(woken, n);
    EXPECT_EQ(cond_is_waiting(&cond), 0u);
  };
  cond_set(&cond);
  run(cond_wait, cond_signal, 1);  // waits although the flag is set
  run(cond_wait, cond_broadcast, 4);
  cond_reset(&cond);
  run(cond_wait_for_done, cond_signal_if_waiting, 1);
  cond_reset(&cond);
  run(cond_wait_for_done, cond_signal_if_waiting, 4);
  cond_reset(&cond);
  run([](cond_var_s* c) { return cond_wait_timeout(c, 60'000); }, cond_broadcast, 3);
}

TEST(Sync, ATimedLockGivesUpAndAPlainOneDoesNot) {
  pthread_mutex_t mutex;
  ASSERT_EQ(mutex_create(&mutex), 0);
  ASSERT_EQ(mutex_lock(&mutex, 5), 0);
  std::thread([&] {
    EXPECT_EQ(mutex_trylock(&mutex), EBUSY);
    const std::uint64_t start = platform::monotonic_ns();
    EXPECT_EQ(mutex_lock(&mutex, 30), ETIMEDOUT);
    EXPECT_GE(elapsed_ms(start), 25u);
    EXPECT_LT(elapsed_ms(start), 10'000u);
  }).join();
  // The largest times must not turn into a deadline that has passed.
  for (const std::uint64_t ms : {std::uint64_t{1} << 50, UINT64_MAX}) {
    std::atomic<bool> asked{false};
    std::thread waiter([&] {
      asked = true;
      EXPECT_EQ(mutex_lock(&mutex, ms), 0) << ms;
      mutex_unlock(&mutex);
    });
    while (!asked) std::this_thread::yield();
    EXPECT_EQ(mutex_unlock(&mutex), 0);
    waiter.join();
    mutex_lock(&mutex);
  }
  EXPECT_EQ(mutex_unlock(&mutex), 0);
  std::uint32_t word = 7;
  EXPECT_EQ(mutex_set_var(&mutex, &word, 9), 7u);
  EXPECT_EQ(word, 9u);
  pthread_mutex_destroy(&mutex);
}

struct gathering {
  std::atomic<int> seen[8]{};
  std::atomic<int> total{0};
};
gathering* g_gathering = nullptr;

TEST(Threads, EachOfManyGetsItsOwnNumberAndEndsByItself) {
  gathering all;
  g_gathering = &all;
  const auto body = [](void* number) -> void* {
    thread_detach_self();
    ++g_gathering->seen[*static_cast<int*>(number)];
    ++g_gathering->total;
    return nullptr;
  };
  EXPECT_EQ(create_threads(body, nullptr, -1), 0);
  ASSERT_EQ(create_threads(body, nullptr, 8), 0);
  while (all.total != 8) std::this_thread::yield();
  for (const std::atomic<int>& seen : all.seen) EXPECT_EQ(seen, 1);
}

TEST(Threads, PriorityReachesAThreadThatHasNotRunYet) {
  record go;
  const auto body = [](void* cond) -> void* {
    cond_wait_for_done(static_cast<cond_var_s*>(cond));
    return cond;
  };
  for (const int level : {-1, -3, 99}) {
    pthread_t id{};
    cond_reset(&go);
    ASSERT_EQ(create_thread(&id, body, static_cast<cond_var_s*>(&go), 0), 0);
    EXPECT_EQ(thread_set_priority(id, level), 0);
    cond_signal(&go);
    void* result = nullptr;
    pthread_join(id, &result);
    EXPECT_EQ(result, static_cast<cond_var_s*>(&go));
    EXPECT_EQ(thread_set_priority(id, level), -1) << "the thread has ended";
  }
  EXPECT_EQ(thread_set_self_priority(0), 0);
}

TEST(Threads, AThreadThatCannotBeMadeIsAFailureNotACrash) {
  const auto body = [](void*) -> void* { return nullptr; };
  platform::current_fault_hook = [](platform::fault_point at) {
    return at == platform::fault_point::thread;
  };
  EXPECT_EQ(create_thread(body, nullptr), -1);
  EXPECT_EQ(create_threads(body, nullptr, 3), -1);
  platform::current_fault_hook = nullptr;
}

}  // namespace
}  // namespace korvex
