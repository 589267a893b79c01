#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "crash/posix/crash_report.h"
#include "crash/posix/power_cut.h"
#include "engine/disk_fixture.h"
#include "engine/verify.h"

extern char** environ;

// A program that adds, links, syncs, compacts, closes and opens is killed at random moments; or the power goes, and
// with it what was not flushed. Whatever it had been told was done must be there afterwards.
namespace korvex::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

constexpr int deadline_seconds = sanitized ? 120 : 40;

unsigned from_environment(const char* name, unsigned otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

class child {
 public:
  explicit child(const std::vector<std::string>& words) {
    std::vector<char*> pointers;
    for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
    pointers.push_back(nullptr);
    if (posix_spawn(&pid_, KORVEX_CRASH_CHILD, nullptr, nullptr, pointers.data(), environ) != 0)
      std::abort();
  }
  ~child() { kill_now(); }
  child(const child&) = delete;
  child& operator=(const child&) = delete;

  bool ended() {
    if (pid_ > 0 && ::waitpid(pid_, &status_, WNOHANG) == pid_) pid_ = -1;
    return pid_ < 0;
  }
  void kill_now() {
    if (ended()) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status_, 0);
    pid_ = -1;
  }
  // -1 when it did not end in time or by itself.
  int result() {
    const auto end = steady_clock::now() + std::chrono::seconds(deadline_seconds);
    while (!ended() && steady_clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (!ended()) return -1;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
  }

 private:
  pid_t pid_ = -1;
  int status_ = 0;
};

class Crash : public testing::Test {
 protected:
  void SetUp() override {
    seed_ = from_environment("KORVEX_CRASH_SEED", std::random_device{}());
    random_.seed(seed_);
  }

  std::string base() const { return scratch_.path(); }
  std::string folder() const { return base() + "/nimbra-korvex/0"; }
  std::string device() const { return base() + "/device"; }
  std::string report_path() const { return base() + "/report"; }

  // Begins a new index before the rows run out.
  void start_over_when_full() {
    if (!report_ || (*report_)->id[most_rows / 2].load() != 0 || random_() % 16 == 0) {
      report_.reset();
      for (const auto& entry : fs::directory_iterator(base())) fs::remove_all(entry.path());
      report_ = std::make_unique<shared_report>(report_path());
    }
  }

  // Lets the program run into some phase and a little further.
  phase run_and_kill(bool with_device) {
    std::vector<std::string> words = {"crash_child", base(), report_path(), "use",
                                      std::to_string(random_())};
    if (with_device) words.push_back(device());
    const phase wanted = static_cast<phase>(1 + random_() % 7);
    (*report_)->at = phase::none;
    child program(words);
    const auto begin = steady_clock::now();
    const auto limit = begin + std::chrono::milliseconds(sanitized ? 8'000 : 1'500);
    while ((*report_)->at.load() != wanted && steady_clock::now() < limit && !program.ended())
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    std::this_thread::sleep_for(std::chrono::microseconds(random_() % 1'000 * (random_() % 40)));
    EXPECT_FALSE(program.ended()) << "the program gave up";
    program.kill_now();
    return (*report_)->at.load();
  }

  void check(bool with_device) {
    std::vector<std::string> words = {"crash_child", base(), report_path(), "check", "0"};
    if (with_device) words.push_back(device());
    child program(words);
    ASSERT_EQ(program.result(), 0) << "the index does not open, or hangs";
    EXPECT_EQ((*report_)->kept.load(), (*report_)->asked.load())
        << "row " << (*report_)->lost_row.load() << " is lost";
    EXPECT_GE((*report_)->found.load(), (*report_)->asked.load() * 0.99)
        << "of " << (*report_)->asked.load();
    asked_ += (*report_)->asked.load();
    found_ += (*report_)->found.load();
    const verify_report verified = korvex_verify_directory(folder(), "crash");
    EXPECT_TRUE(verified.clean()) << verified.reason;
    for (const verify_finding& finding : verified.findings)
      if (finding.severity != verify_severity::note)
        ADD_FAILURE() << finding.check << ": " << finding.text;
  }

  // Kills the program, lets the damage happen and looks whether the index comes back, many times.
  void at_random_moments(const char* what, bool with_device, const std::function<void()>& damage) {
    std::map<phase, int> moments;
    const unsigned wanted = from_environment("KORVEX_CRASH_MOMENTS", sanitized ? 2 : 5);
    for (unsigned moment = 0; moment < wanted && !HasFailure(); ++moment) {
      SCOPED_TRACE("KORVEX_CRASH_SEED=" + std::to_string(seed_) + ", moment " +
                   std::to_string(moment));
      start_over_when_full();
      const phase at = run_and_kill(with_device);
      ++moments[at];
      SCOPED_TRACE(name_of(at));
      damage();
      check(with_device);
    }
    print_summary(what, moments);
  }

  void print_summary(const char* what, const std::map<phase, int>& moments) const {
    std::string text;
    for (const auto& [at, count] : moments)
      text += std::string(" ") + name_of(at) + " " + std::to_string(count);
    std::printf("%s, seed %u:%s; %llu of %llu rows found\n", what, seed_, text.c_str(),
                static_cast<unsigned long long>(found_), static_cast<unsigned long long>(asked_));
  }

  const scratch_directory scratch_;
  unsigned seed_ = 0;
  std::mt19937 random_;
  std::unique_ptr<shared_report> report_;
  std::uint64_t asked_ = 0, found_ = 0;
};

TEST_F(Crash, KilledAtAnyMomentItComesBackWhole) {
  at_random_moments("killed", false, [] {});
}

TEST_F(Crash, PowerCutLeavesWhatWasSynced) {
  at_random_moments("cut off", true, [this] {
    constexpr double lucks[] = {0.0, 0.1, 0.5, 0.9};
    if (fs::exists(folder()) && fs::exists(device()))
      cut_power(folder(), device(), lucks[random_() % 4], &random_);
    // Promised is what a sync had returned for; the rest may be added again.
    for (std::uint32_t row = 0; row < most_rows; ++row)
      if ((*report_)->synced[row].load() == 0) (*report_)->id[row].store(0);
  });
}

}  // namespace
}  // namespace korvex::test
