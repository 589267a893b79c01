// The life of an index again and again, each time with another call for memory, room, files or threads that fails.
// In the tests a few failures of each place in the code are tried; all of them: KORVEX_FAULTS=all faults_tests, and one
// alone: KORVEX_FAULTS=NUMBER with --gtest_filter.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "engine/verify.h"
#include "front_life.h"
#include "host_system.h"
#include "injection.h"
#include "life.h"
#include "runtime/log.h"
#include "sanitizers.h"

namespace korvex::test {
namespace {

namespace fs = std::filesystem;

// The calls whose failures are tried: of each place the first and the last; of these each `step`-th, and fewer where
// threads are watched.
std::vector<long> chosen(const std::vector<injection::call>& calls, std::size_t step) {
  const char* const wish = std::getenv("KORVEX_FAULTS");
  if (wish != nullptr && std::strcmp(wish, "all") != 0) return {std::atol(wish)};
  std::map<std::uint64_t, std::vector<long>> places;
  for (std::size_t i = 0; i < calls.size(); ++i)
    places[calls[i].place].push_back(static_cast<long>(i) + 1);
  std::vector<long> numbers;
  for (const auto& [place, at] : places) {
    if (wish != nullptr) {
      numbers.insert(numbers.end(), at.begin(), at.end());
      continue;
    }
    numbers.push_back(at.front());
    if (at.size() > 1) numbers.push_back(at.back());
  }
  std::sort(numbers.begin(), numbers.end());
  if (wish != nullptr) return numbers;
  if (thread_sanitized) step *= 8;
  std::vector<long> some;
  for (std::size_t i = 0; i < numbers.size(); i += step) some.push_back(numbers[i]);
  return some;
}

// Where a crash came from is worth more than where it was.
[[noreturn]] void tell_and_end(int signal) {
  injection::stop();
  injection::print_failed();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
  std::abort();
}

class Faults : public testing::Test {
 protected:
  void SetUp() override {
    if (!sanitized) std::signal(SIGSEGV, tell_and_end);
    std::signal(SIGABRT, tell_and_end);
    log_init(64'000, 0);
    log_setfd(0);
    log_set_callback([](int, const char*, const char*, const char*) {});
    // In memory where that can be had: each life writes and removes a whole index.
    const fs::path in_memory = "/dev/shm";
    directory_ = (fs::is_directory(in_memory) ? in_memory : fs::temp_directory_path()) /
                 ("korvex-faults-" +
                  std::to_string(std::hash<std::string>{}(
                      testing::UnitTest::GetInstance()->current_test_info()->name())) +
                  "-" + std::to_string(::getpid()));
    begin_anew();
  }
  void TearDown() override {
    injection::stop();
    fs::remove_all(directory_);
  }

  void begin_anew() {
    fs::remove_all(directory_);
    fs::create_directories(directory_);
  }

  // `prepare` and `check` run when nothing fails.
  void sweep(const std::function<void()>& prepare, const std::function<void()>& live,
             const std::function<void()>& check, std::size_t step = 1) {
    prepare();
    live();  // what is made once a process is there from now on
    check();
    prepare();
    injection::record();
    live();
    injection::stop();
    ASSERT_FALSE(HasFailure()) << "nothing had failed yet";
    const std::vector<injection::call> calls = injection::recorded();
    const std::vector<long> numbers = chosen(calls, step);
    for (const long number : numbers) {
      SCOPED_TRACE("call " + std::to_string(number));
      const int complaints = this->complaints();
      prepare();
      const std::int64_t mapped = injection::mapped_bytes();
      const std::size_t open = host_system::open_handles();
      injection::fail(number);
      live();
      injection::stop();
      if (complaints == this->complaints()) check();
      EXPECT_EQ(injection::mapped_bytes(), mapped) << "mappings stay";
      EXPECT_EQ(host_system::open_handles(), open) << "files stay open";
      if (complaints == this->complaints()) continue;
      injection::print_failed();
      return;
    }
    std::printf("%zu of %zu calls failed in turn\n", numbers.size(), calls.size());
  }

  // A life with files takes ten times as long.
  static constexpr std::size_t step_on_disk = 5;

  static int complaints() {
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
  }

  fs::path directory_;
};

TEST_F(Faults, AnIndexInMemoryLosesOneOperationAtMost) {
  const life_plan plan;
  sweep([] {}, [&] { life(plan).live(0, life::rows); }, [] {});
}

TEST_F(Faults, ThreadsInTheBackgroundGoOn) {
  const life_plan plan{"", 2, 2};
  sweep([] {}, [&] { life(plan).live(0, life::rows); }, [] {});
}

TEST_F(Faults, ANewIndexOnDiskIsWholeWhenItIsReopened) {
  const life_plan plan{directory_.string()};
  sweep([&] { begin_anew(); }, [&] { life(plan).live(0, life::rows); },
        [&] { life(plan).expect_whole(life::rows); }, step_on_disk);
}

TEST_F(Faults, ADiskCacheDoesWithoutMemory) {
  const life_plan plan{.directory = directory_.string(), .cache_bytes = 4'000};
  sweep([&] { begin_anew(); }, [&] { life(plan).live(0, life::rows); },
        [&] { life(plan).expect_whole(life::rows); }, step_on_disk);
}

// Files of an index that cannot be read at the moment are not taken for nobody's.
TEST_F(Faults, RemovingAnIndexSparesItsNeighbour) {
  const life_plan plan{.directory = directory_.string(), .removes_files = true};
  const auto neighbour = [&] { return korvex_verify_directory(directory_.string(), "life-aa"); };
  sweep(
      [&] {
        begin_anew();
        Korvex* const other = KorvexOnDiskInstance(3, directory_.c_str(), "life-aa");
        const float vector[] = {1, 2, 3};
        other->setThreads(0);
        other->setAllocationUnits(16);
        other->addVector(vector, 0, 0);
        other->destroy();
      },
      [&] { life(plan).live(0, life::rows); }, [&] { EXPECT_TRUE(neighbour().clean()); },
      step_on_disk);
}

TEST_F(Faults, TheFrontThrowsAndGoesOn) {
  const std::string in_memory;
  sweep([] {}, [&] { front_life(in_memory).live(); }, [] {});
}

TEST_F(Faults, AReopenedIndexKeepsWhatItHeld) {
  const life_plan plan{directory_.string()};
  sweep(
      [&] {
        begin_anew();
        life(plan).live(0, life::rows_of_first_opening);
      },
      [&] { life(plan).live(life::rows_of_first_opening, life::rows); },
      [&] { life(plan).expect_whole(life::rows); }, step_on_disk);
}

}  // namespace
}  // namespace korvex::test
