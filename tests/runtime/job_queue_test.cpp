#include "runtime/job_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "runtime/job_queue_record.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/faults.h"

namespace korvex {
namespace {

struct numbered_job : jobs_s {
  std::atomic<int> delivered{0};
};

struct queue_closer {
  void operator()(jobq_s* queue) const { jobq_cleanup(queue); }
};
using queue_owner = std::unique_ptr<jobq_s, queue_closer>;

queue_owner make_queue(std::uint32_t max_threads = 4, std::uint32_t min_threads = 1,
                       std::uint64_t exit_interval_ms = 0) {
  queue_owner queue(jobq_init());
  jobq_set_threads_config(queue.get(), max_threads, min_threads, exit_interval_ms);
  return queue;
}

template <typename Condition>
void await(Condition condition) {
  while (!condition()) std::this_thread::yield();
}

TEST(JobQueue, MatchesTwoLanesUnderRandomOperations) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const queue_owner owner = make_queue();
  jobq_s* queue = owner.get();
  std::deque<jobs_s*> urgent;
  std::deque<jobs_s*> ordinary;
  std::vector<std::unique_ptr<numbered_job>> jobs;
  for (int step = 0; step < 20'000; ++step) {
    std::deque<jobs_s*>& next = urgent.empty() ? ordinary : urgent;
    if (random() % 2 == 0) {
      jobs.push_back(std::make_unique<numbered_job>());
      const int priority = static_cast<int>(random() % 3);
      ASSERT_EQ(jobq_add(queue, jobs.back().get(), priority), 0);
      (priority > 0 ? urgent : ordinary).push_back(jobs.back().get());
    } else {
      jobs_s* expected = next.empty() ? nullptr : next.front();
      ASSERT_EQ(jobq_peek_head(queue), expected);
      ASSERT_EQ(step % 3 == 0 ? jobq_try_get(queue) : jobq_get(queue, -1), expected);
      if (expected != nullptr) next.pop_front();
    }
    ASSERT_EQ(jobq_size(queue), urgent.size() + ordinary.size());
    ASSERT_EQ(jobq_has_front(queue), urgent.empty() ? 0 : 1);
    if (!jobs.empty() && step % 100 == 0) {
      const jobs_s* job = jobs[random() % jobs.size()].get();
      const auto holds = [job](const std::deque<jobs_s*>& lane) {
        return std::find(lane.begin(), lane.end(), job) != lane.end();
      };
      ASSERT_EQ(jobq_is_queued(queue, job), holds(urgent) || holds(ordinary) ? 1 : 0);
    }
  }
}

TEST(JobQueue, RefusesNullAndDoesNotWaitWithoutAPool) {
  jobs_s job{};
  const queue_owner unconfigured(jobq_init());
  EXPECT_EQ(jobq_add(nullptr, &job, 0), -1);
  EXPECT_EQ(jobq_add(unconfigured.get(), nullptr, 0), -1);
  EXPECT_EQ(jobq_get(nullptr, 0), nullptr);
  EXPECT_EQ(jobq_get(unconfigured.get(), 0), nullptr);
  EXPECT_EQ(jobq_thread_count_active(nullptr), 0u);
  jobq_cleanup(nullptr);
}

TEST(JobQueue, AProducerWaitsAtTheLimitUntilAJobIsTakenOrTheLimitGoes) {
  const queue_owner owner = make_queue();
  jobq_s* queue = owner.get();
  jobq_set_blocking(queue, 2);
  numbered_job jobs[5];
  jobq_add(queue, &jobs[0], 0);
  jobq_add(queue, &jobs[1], 0);
  std::atomic<int> added{0};
  const auto producer = [&](int i) {
    return std::thread([&, i] {
      EXPECT_EQ(jobq_add(queue, &jobs[i], 0), 0);
      ++added;
    });
  };
  const auto waits = [&] { return jobq_producer_count_waiting(queue) == 1; };
  std::thread third = producer(2);
  await(waits);
  EXPECT_EQ(added, 0);
  EXPECT_EQ(jobq_try_get(queue), &jobs[0]);
  third.join();
  std::thread fourth = producer(3);
  await(waits);
  EXPECT_EQ(added, 1);
  jobq_set_blocking(queue, 0);
  fourth.join();

  jobq_set_blocking(queue, 1);
  jobq_enter_worker(queue);
  EXPECT_EQ(jobq_add(queue, &jobs[4], 0), 0) << "a worker never waits for itself";
  EXPECT_EQ(jobq_enter_worker(nullptr), queue);
}

// Producers that wait for room, consumers that wait for work with all kinds of time limits.
TEST(JobQueue, DeliversEveryJobExactlyOnce) {
  constexpr int producers = 3;
  constexpr int consumers = 4;
  constexpr int jobs_each = 6000;
  for (const int limit : {0, 2, 50}) {
    const queue_owner owner = make_queue();
    jobq_s* queue = owner.get();
    jobq_set_blocking(queue, limit);
    std::vector<numbered_job> jobs(producers * jobs_each);
    std::atomic<int> delivered{0};
    std::atomic<int> timed_out{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < consumers; ++c) {
      threads.emplace_back([&, c] {
        jobq_enter_worker(queue);
        while (delivered.load() < producers * jobs_each) {
          const int timeout = c == 0 ? 0 : 5000;
          const std::uint64_t start = platform::monotonic_ns();
          auto* job = static_cast<numbered_job*>(jobq_get(queue, timeout));
          if (platform::monotonic_ns() - start > 4'000'000'000) ++timed_out;
          if (job == nullptr) continue;
          ++job->delivered;
          if (++delivered == producers * jobs_each) jobq_trigger(queue, 1);
        }
      });
    }
    for (int p = 0; p < producers; ++p) {
      threads.emplace_back([&, p] {
        std::mt19937 random(static_cast<unsigned>(p));
        for (int i = 0; i < jobs_each; ++i) {
          const auto at = static_cast<std::size_t>(p * jobs_each + i);
          jobq_add(queue, &jobs[at], random() % 4 == 0 ? 1 : 0);
          if (random() % 16 == 0) std::this_thread::yield();
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(timed_out, 0) << "a wake-up was lost";
    EXPECT_EQ(jobq_size(queue), 0u);
    for (const numbered_job& job : jobs) ASSERT_EQ(job.delivered, 1);
  }
}

// Holds a waiter between counting itself and sleeping; released, it needs longer to go on than this
// thread to wake it. Nothing later makes up for a lost wake-up.
TEST(JobQueue, NoWakeUpIsLostOnTheWayToSleep) {
  const queue_owner owner = make_queue();
  jobq_s* queue = owner.get();
  numbered_job jobs[2];
  for (int round = 0; round < 100 && !HasFailure(); ++round) {
    mutex_lock(&queue->work_available.mutex);
    std::thread worker([&] {
      const std::uint64_t start = platform::monotonic_ns();
      EXPECT_EQ(jobq_get(queue, 3000), &jobs[0]);
      EXPECT_LT(platform::monotonic_ns() - start, 2'500'000'000) << "found only when time was up";
    });
    await([&] { return jobq_thread_count_waiting(queue) == 1; });
    mutex_unlock(&queue->work_available.mutex);
    jobq_add(queue, &jobs[0], 0);
    worker.join();
  }
  jobq_set_blocking(queue, 1);
  for (int round = 0; round < 100 && !HasFailure(); ++round) {
    std::atomic<bool> added{false};
    jobq_add(queue, &jobs[0], 0);
    mutex_lock(&queue->space_available.mutex);
    std::thread producer([&] { added = jobq_add(queue, &jobs[1], 0) == 0; });
    await([&] { return jobq_producer_count_waiting(queue) == 1; });
    mutex_unlock(&queue->space_available.mutex);
    EXPECT_EQ(jobq_try_get(queue), &jobs[0]);
    const std::uint64_t start = platform::monotonic_ns();
    await([&] { return added || platform::monotonic_ns() - start > 3'000'000'000; });
    EXPECT_TRUE(added) << round;
    if (!added) jobq_set_blocking(queue, 0);
    producer.join();
    jobq_try_get(queue);
  }
}

TEST(JobQueue, AnIdleWorkerSleepsAfterTheFirstJob) {
  const queue_owner owner = make_queue();
  jobq_s* queue = owner.get();
  std::atomic<int> rounds{0};
  std::atomic<std::uint64_t> idle_ns{0};
  std::atomic<bool> got{false};
  std::thread worker([&] {
    got = jobq_get(queue, 0) != nullptr;
    const std::uint64_t start = platform::monotonic_ns();
    for (; rounds < 4; ++rounds) EXPECT_EQ(jobq_get(queue, 20), nullptr);
    idle_ns = platform::monotonic_ns() - start;
  });
  await([&] { return jobq_thread_count_waiting(queue) == 1; });
  numbered_job job;
  jobq_add(queue, &job, 0);
  worker.join();
  EXPECT_TRUE(got);
  EXPECT_GE(idle_ns, 60'000'000u);
}

TEST(JobQueue, ATriggerReachesWorkersThatAreJustAboutToWait) {
  const queue_owner owner = make_queue();
  jobq_s* queue = owner.get();
  jobq_enter_worker(queue);
  jobq_trigger(queue, 1);
  EXPECT_EQ(jobq_get(queue, 0), nullptr);
  const std::uint64_t start = platform::monotonic_ns();
  EXPECT_EQ(jobq_get(queue, 20), nullptr) << "one early return a trigger, then it waits again";
  EXPECT_GE(platform::monotonic_ns() - start, 15'000'000u);
  jobq_enter_worker(nullptr);

  std::thread waiter([&] { EXPECT_EQ(jobq_get(queue, 0), nullptr); });
  await([&] { return jobq_thread_count_waiting(queue) == 1; });
  jobq_trigger(queue, 0);
  waiter.join();
}

// Workers on their way to sleep, asleep and just awake, all at once: each must see every trigger.
TEST(JobQueue, ATriggerReachesEveryWorkerEachTime) {
  constexpr int workers = 3;
  constexpr int last_round = 3000;
  const queue_owner owner = make_queue();
  std::atomic<int> round{0};
  std::atomic<int> seen[workers] = {-1, -1, -1};
  std::vector<std::thread> threads;
  for (std::atomic<int>& mine : seen) {
    threads.emplace_back([&] {
      jobq_enter_worker(owner.get());
      mine = 0;
      while (mine < last_round) {
        const std::uint64_t start = platform::monotonic_ns();
        jobq_get(owner.get(), 3000);
        EXPECT_LT(platform::monotonic_ns() - start, 2'500'000'000) << "slept over a trigger";
        mine = round.load();
      }
    });
  }
  const auto await_all = [&](int r) {
    for (const std::atomic<int>& theirs : seen) await([&] { return theirs == r; });
  };
  await_all(0);
  for (int r = 1; r <= last_round; ++r) {
    round = r;
    jobq_trigger(owner.get(), 1);
    await_all(r);
  }
  for (std::thread& thread : threads) thread.join();
}

struct pool {
  queue_owner queue = make_queue(3, 1, 0);
  std::atomic<bool> stop{false};
  std::atomic<int> done{0};
  std::atomic<int> left{0};

  static void* work(void* argument) {
    thread_detach_self();
    auto* self = static_cast<pool*>(argument);
    jobq_s* queue = self->queue.get();
    jobs_thread_s worker;
    jobq_thread_init(queue, &worker);
    jobq_enter_worker(queue);
    while (!self->stop)
      if (jobq_get(queue, 1000) != nullptr) ++self->done;
    jobq_thread_left(queue);
    ++self->left;
    return nullptr;
  }
  int launch(int count, int force) {
    return jobq_thread_launch(queue.get(), work, this, count, 0, force);
  }
};

TEST(JobQueue, ThePoolStartsOnDemandAndNeverBeyondItsLimit) {
  pool workers;
  jobq_s* queue = workers.queue.get();
  numbered_job jobs[2];
  EXPECT_EQ(workers.launch(1, 0), -1) << "nothing to do";
  jobq_add(queue, &jobs[0], 0);
  platform::current_fault_hook = [](platform::fault_point at) {
    return at == platform::fault_point::thread;
  };
  EXPECT_EQ(workers.launch(1, 0), -1);
  platform::current_fault_hook = nullptr;
  EXPECT_EQ(jobq_thread_count_active(queue), 0u);
  EXPECT_EQ(workers.launch(0, 0), 0);
  await([&] { return workers.done == 1 && jobq_thread_count_waiting(queue) == 1; });
  EXPECT_EQ(workers.launch(1, 0), -1) << "one waits already";
  EXPECT_EQ(workers.launch(-1, 1), 0);
  EXPECT_EQ(jobq_thread_count_active(queue), 3u);
  EXPECT_EQ(workers.launch(1, 1), -1);
  jobq_add(queue, &jobs[1], 0);
  await([&] { return workers.done == 2; });
  workers.stop = true;
  jobq_trigger(queue, 1);
  await([&] { return workers.left == 3; });
  EXPECT_EQ(jobq_thread_count_active(queue), 0u);
}

TEST(JobQueue, WorkersRetireOneByOneDownToTheMinimum) {
  pool workers;
  jobq_s* queue = workers.queue.get();
  jobq_set_threads_config(queue, 3, 1, 60'000);
  ASSERT_EQ(workers.launch(-1, 1), 0);
  numbered_job job;
  jobs_thread_s fresh;
  jobq_thread_init(queue, &fresh);
  const jobs_thread_s old{fresh.started_ms - 1000};
  EXPECT_EQ(jobq_thread_should_exit(queue, &fresh), 0) << "too young";
  EXPECT_EQ(jobq_thread_should_exit(queue, &old), 1);
  EXPECT_EQ(jobq_thread_should_exit(queue, &old), 0) << "one an interval";
  jobq_set_threads_config(queue, 3, 1, 0);
  EXPECT_EQ(jobq_thread_should_exit(queue, &old), 1);
  EXPECT_EQ(jobq_thread_should_exit(queue, &old), 0) << "the last one stays";
  workers.stop = true;
  jobq_trigger(queue, 1);
  await([&] { return workers.left == 3; });
}

TEST(JobQueue, ClosingReleasesEveryWaiter) {
  for (int round = 0; round < 200; ++round) {
    jobq_s* queue = make_queue().release();
    jobq_s* full = make_queue().release();
    jobq_set_blocking(full, 1);
    numbered_job jobs[3];
    jobq_add(full, &jobs[0], 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
      threads.emplace_back([&] { EXPECT_EQ(jobq_get(queue, 0), nullptr); });
      threads.emplace_back([&, i] { EXPECT_EQ(jobq_add(full, &jobs[i + 1], 0), -1); });
    }
    await([&] { return jobq_thread_count_waiting(queue) == 2; });
    jobq_cleanup(queue);
    threads[0].join();
    threads[2].join();
    await([&] { return jobq_producer_count_waiting(full) == 2; });
    jobq_cleanup(full);
    threads[1].join();
    threads[3].join();
  }
}

}  // namespace
}  // namespace korvex
