#include "runtime/log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "runtime/log_ring.h"
#include "runtime/platform/faults.h"
#include "runtime/platform/files.h"
#include "runtime/platform/threads.h"
#include "runtime/sync.h"

namespace korvex {
namespace {

KORVEX_PRINTF(3, 4)
bool push(log_ring* ring, const char* tag, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  std::va_list measured;
  va_copy(measured, args);
  const int length = std::vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  const bool queued = ring->push(0, tag, static_cast<std::size_t>(length), format, args);
  va_end(args);
  return queued;
}

std::string front_message(const log_ring& ring) {
  const log_ring::line line = ring.front();
  EXPECT_EQ(line.message[line.message_length], '\0');
  return {line.message, line.message_length};
}

TEST(LogRing, KeepsTheNewestLinesInOrderForEver) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (const std::uint64_t capacity : {1000u, 4099u}) {
    log_ring ring;
    ASSERT_TRUE(ring.allocate(capacity));
    std::deque<std::string> expected;
    std::uint32_t dropped = 0;
    for (int step = 0; step < 50'000; ++step) {
      if (random() % 3 != 0) {
        const std::string text =
            std::to_string(step) + std::string(random() % (step % 50 == 0 ? 600 : 40), 'x');
        ASSERT_TRUE(push(&ring, step % 2 == 0 ? "" : "tag", "%s", text.c_str())) << step;
        expected.push_back(text);
        while (expected.size() > ring.count()) {
          expected.pop_front();
          ++dropped;
        }
        ASSERT_EQ(ring.dropped(), dropped);
      } else if (ring.count() > 0) {
        ASSERT_EQ(front_message(ring), expected.front());
        ring.pop_front();
        expected.pop_front();
      }
      ASSERT_EQ(ring.count(), expected.size());
    }
  }
}

TEST(LogRing, ALineTooLongForTheRingIsCut) {
  for (const std::uint64_t capacity : {64'000u, 63'997u, 104u}) {
    log_ring ring;
    ASSERT_TRUE(ring.allocate(capacity));
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(push(&ring, "", "short"));
    const auto queued = static_cast<std::uint32_t>(ring.count());
    const std::uint32_t before = ring.dropped();
    const std::string text(70'000, 'x');
    ASSERT_TRUE(push(&ring, "tag", "%s", text.c_str()));
    EXPECT_EQ(ring.dropped(), before + queued);
    ASSERT_EQ(ring.count(), 1u);
    const std::string kept = front_message(ring);
    EXPECT_GE(kept.size() + 80, capacity);
    EXPECT_EQ(kept, std::string(kept.size() - 3, 'x') + "...");
    EXPECT_STREQ(ring.front().tag, "tag");
  }
  log_ring ring;
  ASSERT_TRUE(ring.allocate(64'000));
  EXPECT_FALSE(push(&ring, std::string(63'950, 't').c_str(), "%0100d", 1));
  EXPECT_TRUE(push(&ring, std::string(63'800, 't').c_str(), "%0200d", 1));
}

// A logger that writes to a file of its own; what it wrote can be read at any time.
class Log : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = (std::filesystem::temp_directory_path() /
             ("korvex-log-test-" + std::to_string(platform::process_id())))
                .string();
    fd_ = platform::open_file(path_.c_str(), platform::open_mode::truncate);
    ASSERT_GT(fd_, 2);
  }
  void TearDown() override {
    log_set_callback(nullptr);
    log_setfd(1);
    log_shutdown();
    platform::close_file(fd_);
    std::filesystem::remove(path_);
  }
  void start(std::uint64_t size = 64'000, std::uint32_t mask = 0) {
    ASSERT_EQ(log_init(size, mask), 0);
    ASSERT_EQ(log_setfd(fd_), 1);
  }
  std::string written() const {
    std::ifstream file(path_);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  std::string path_;
  int fd_ = -1;
};

TEST_F(Log, NothingWorksBeforeTheStartAndTheStartWorksOnce) {
  EXPECT_EQ(log_async(0, nullptr, "x\n"), -1);
  EXPECT_EQ(log_sync(0, nullptr, "x\n"), -1);
  EXPECT_EQ(log_wait_empty(), -1);
  EXPECT_EQ(log_shutdown(), -1);
  EXPECT_EQ(log_setfd(fd_), 0);
  EXPECT_EQ(log_init(0, 1), -1);
  for (const auto point : {platform::fault_point::thread, platform::fault_point::heap}) {
    static platform::fault_point failing;
    failing = point;
    platform::current_fault_hook = [](platform::fault_point at) { return at == failing; };
    EXPECT_EQ(log_init(64'000, 0), -1);
    platform::current_fault_hook = nullptr;
  }
  for (int round = 0; round < 3; ++round) {
    start();
    EXPECT_EQ(log_init(64'000, 0), -1);
    log_async(0, nullptr, "round %d\n", round);
    EXPECT_EQ(log_wait_empty(-1), 0);
    EXPECT_EQ(log_shutdown(), 0);
  }
  EXPECT_EQ(written(), "round 0\nround 1\nround 2\n");
}

TEST_F(Log, OnlyLevelsOfTheMaskPass) {
  start(64'000, 0);
  std::string expected;
  for (const std::uint32_t mask : {0u, 2u, 5u}) {
    log_setlevel(mask);
    for (const std::uint32_t level : {0u, 1u, 2u, 4u, 6u}) {
      EXPECT_EQ(log_async(level, "tag", "mask %u level %u\n", mask, level), 0);
      EXPECT_EQ(log_wait_empty(-1), 0);
      EXPECT_EQ(log_sync(level, nullptr, "at once\n"), 0);
      if (level == 0 || (level & mask) != 0)
        expected +=
            "mask " + std::to_string(mask) + " level " + std::to_string(level) + "\nat once\n";
    }
  }
  EXPECT_EQ(written(), expected);
}

TEST_F(Log, ThousandsOfLinesGoThroughASmallRing) {
  start(2000);
  std::string expected;
  for (int i = 0; i < 20'000; ++i) {
    ASSERT_EQ(log_async(0, nullptr, "line %d of many\n", i), 0);
    expected += "line " + std::to_string(i) + " of many\n";
    if (i % 20 == 0) log_wait_empty(-1);
  }
  EXPECT_EQ(log_wait_empty(-1), 0);
  EXPECT_TRUE(written() == expected);
}

TEST_F(Log, LinesAreWholeWhateverTheirLengthAndThread) {
  start(1'000'000);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 300; ++i) {
        const std::string text(static_cast<std::size_t>(i * 7 + 1), static_cast<char>('a' + t));
        EXPECT_EQ(i % 9 == 0 ? log_sync(0, nullptr, "%.900s\n", text.c_str())
                             : log_async(0, "tag", "%s\n", text.c_str()),
                  0);
        if (i % 25 == 0) log_wait_empty(-1);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(log_wait_empty(-1), 0);
  std::ifstream file(path_);
  std::string line;
  int lines = 0;
  for (; std::getline(file, line); ++lines)
    ASSERT_EQ(line, std::string(line.size(), line[0])) << "texts of two threads in one line";
  EXPECT_EQ(lines, 4 * 300);
}

// Holds the worker inside the callback until released.
struct gate {
  cond_var_s reached;
  cond_var_s open;
  std::atomic<int> inner_wait{-2};
} g_gate;

void close_gate() {
  cond_init(&g_gate.reached);
  cond_init(&g_gate.open);
  log_set_callback([](int, const char*, const char* message, const char* extra) {
    EXPECT_EQ(extra, nullptr);
    if (std::string(message) != "gate\n") return;
    cond_signal(&g_gate.reached);
    cond_wait_for_done(&g_gate.open);
    g_gate.inner_wait = log_wait_empty(-1);
    EXPECT_EQ(log_shutdown(), -1);
  });
  log_async(0, nullptr, "gate\n");
  cond_wait_for_done(&g_gate.reached);
}

TEST_F(Log, DroppedLinesAreReportedOnce) {
  start(64 * 10);
  close_gate();
  for (int i = 0; i < 15; ++i) EXPECT_EQ(log_async(0, nullptr, "%05d\n", i), 0);
  cond_signal(&g_gate.open);
  EXPECT_EQ(log_wait_empty(-1), 0);
  EXPECT_EQ(log_async(0, nullptr, "later\n"), 0);
  EXPECT_EQ(log_wait_empty(-1), 0);
  EXPECT_EQ(written(),
            "gate\nout of sequence: seq 7 last 1 dropped 5 last dropped 0 diff 5 entries "
            "9\n00005\n00006\n00007\n00008\n00009\n00010\n00011\n00012\n00013\n00014\nlater\n");
}

TEST_F(Log, WaitingForEmptyMeansWritten) {
  start();
  EXPECT_EQ(log_wait_empty(0), 0);
  close_gate();
  EXPECT_EQ(log_wait_empty(5), 1) << "the ring is empty, but its last line is not written";
  std::thread waiter([this] {
    EXPECT_EQ(log_wait_empty(-1), 0);
    EXPECT_EQ(written(), "gate\nlast\n");
  });
  log_async(0, nullptr, "last\n");
  cond_signal(&g_gate.open);
  waiter.join();
  EXPECT_EQ(g_gate.inner_wait, 1);
}

TEST_F(Log, ShutdownReleasesFlushersAndForgetsWhatIsQueued) {
  start();
  close_gate();
  log_async(0, nullptr, "lost\n");
  std::thread waiter([] { EXPECT_EQ(log_wait_empty(-1), -1); });
  std::thread closer([] { EXPECT_EQ(log_shutdown(), 0); });
  while (log_async(0, nullptr, "too late\n") == 0) std::this_thread::yield();
  cond_signal(&g_gate.open);
  closer.join();
  waiter.join();
  EXPECT_EQ(written(), "gate\n");
}

TEST_F(Log, ProducersMayRaceWithStartAndShutdown) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      while (!stop) {
        log_async(0, nullptr, "%s %d\n", log_timestamp(), 1);
        log_sync(0, nullptr, "now\n");
      }
    });
  }
  ::testing::internal::CaptureStdout();  // lines written before the output is set, and gaps
  for (int round = 0; round < 30; ++round) {
    EXPECT_EQ(log_init(5000, 0), 0);
    log_setfd(0);
    log_wait_empty(1);
    EXPECT_EQ(log_shutdown(), 0);
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  ::testing::internal::GetCapturedStdout();
}

TEST_F(Log, AFileByPathGetsEveryLineToo) {
  start();
  const std::string second = path_ + ".second";
  EXPECT_GT(log_setpath(second.c_str()), 2);
  log_async(0, nullptr, "both\n");
  EXPECT_EQ(log_wait_empty(-1), 0);
  EXPECT_EQ(log_flush(), 0);
  EXPECT_EQ(log_setpath(nullptr), 0);
  log_async(0, nullptr, "one\n");
  EXPECT_EQ(log_wait_empty(-1), 0);
  {
    std::ifstream file(second);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "both\n");
  }
  std::filesystem::remove(second);
  EXPECT_EQ(log_setpath((path_ + "/no/such").c_str()), 0);

  EXPECT_EQ(log_fd(), fd_);
  std::FILE* stream = log_fp();
  EXPECT_EQ(log_fp(), stream);
  std::fputs("through the stream\n", stream);
  EXPECT_EQ(log_flush(), 0);
  EXPECT_EQ(written(), "both\none\nthrough the stream\n");
  log_setfd(2);
  EXPECT_EQ(log_fp(), stderr);
}

TEST_F(Log, ProcessExitWritesWhatIsQueued) {
  std::string all;
  for (int i = 0; i < 500; ++i) all += std::to_string(i) + "\n";
  const auto queue_and_exit = [this] {
    start();
    log_setfd(2);  // what the parent sees of its child
    for (int i = 0; i < 500; ++i) log_async(0, nullptr, "%d\n", i);
    std::exit(7);
  };
  EXPECT_EXIT(queue_and_exit(), ::testing::ExitedWithCode(7), all);
}

TEST_F(Log, TheLibrarysLinesStartWithDayMonthTimeAndThread) {
  start();
  KORVEX_LOG("plain %d\n", 1);
  KORVEX_LOG_CRITICAL("refused\n");
  EXPECT_EQ(log_wait_empty(-1), 0);
  const std::string thread = "(" + std::to_string(log_threadid()) + "): ";
  std::string shape = written();
  EXPECT_NE(shape.find(thread + "plain 1\n"), std::string::npos);
  EXPECT_NE(shape.find(thread + "refused\n"), std::string::npos);
  for (char& c : shape) c = c >= '0' && c <= '9' ? '9' : c;
  EXPECT_EQ(shape.substr(0, 18), "E9999-999999-999 (");
  EXPECT_NE(shape.find("**CRITICAL**9999-999999-999 ("), std::string::npos);
  // The same moment in both forms: month and day change places.
  std::string iso = log_timestamp_iso8601();
  std::string text = log_timestamp();
  while (iso != log_timestamp_iso8601()) {
    iso = log_timestamp_iso8601();
    text = log_timestamp();
  }
  EXPECT_EQ(text, iso.substr(8, 2) + iso.substr(5, 2) + "-" + iso.substr(11, 2) +
                      iso.substr(14, 2) + iso.substr(17, 2) + "-" + iso.substr(20, 3));
}

}  // namespace
}  // namespace korvex
