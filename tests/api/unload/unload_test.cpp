// How the library comes into a process and leaves it. A program of its own: nothing else here has loaded it.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "host_system.h"

class Korvex;

namespace {

struct library {
  library() : handle(host_system::load_library(KORVEX_LIBRARY_PATH)) {}
  ~library() { host_system::free_library(handle); }
  library(const library&) = delete;
  library& operator=(const library&) = delete;

  template <class T>
  T function(const char* name) const {
    return reinterpret_cast<T>(host_system::find_function(handle, name));
  }

  void* handle;
};

// The slots of the interface that a short life needs.
void live_and_die(const library& lib) {
  Korvex* index = lib.function<Korvex* (*)(int)>("KorvexInstance")(4);
  void** const slots = *reinterpret_cast<void***>(index);
  std::mt19937 random(1);
  std::vector<float> rows(4 * 100);
  for (float& each : rows) each = static_cast<float>(random() % 1000);
  reinterpret_cast<unsigned long long (*)(Korvex*, const float*, int, int)>(slots[31])(
      index, rows.data(), 100, 0);
  reinterpret_cast<void (*)(Korvex*)>(slots[34])(index);
  reinterpret_cast<void (*)(Korvex*)>(slots[3])(index);
}

bool come_down_to(std::size_t handles) {
  for (int i = 0; i < 300 && host_system::open_handles() > handles; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return host_system::open_handles() <= handles;
}

TEST(Unload, AHundredLoadsLeaveNoHandles) {
  std::size_t before = 0;
  for (int i = 0; i < 100; ++i) {
    {
      const library lib;
      ASSERT_NE(lib.handle, nullptr);
      EXPECT_EQ(lib.function<int (*)()>("KorvexInterfaceVersion")(), 1);
    }
    if (i == 2) before = host_system::open_handles();
  }
  EXPECT_LE(host_system::open_handles(), before);
}

TEST(Unload, IndexesThatCameAndWentLeaveNoHandles) {
  std::size_t before = 0;
  for (int i = 0; i < 23; ++i) {
    {
      const library lib;
      live_and_die(lib);
    }
    if (i != 2) continue;
    // Whoever waits for its time to retire has done so.
    std::this_thread::sleep_for(std::chrono::milliseconds(1'500));
    before = host_system::open_handles();
  }
  EXPECT_TRUE(come_down_to(before + 2)) << before << ", now " << host_system::open_handles();
}

// That a text has a line that ends so for each number below n.
struct numbered_lines {
  using is_gtest_matcher = void;
  int n;
  bool MatchAndExplain(const std::string& text, std::ostream* out) const {
    for (int i = 0; i < n; ++i)
      if (text.find("/" + std::to_string(i) + "/") == std::string::npos) {
        if (out != nullptr) *out << "number " << i << " is missing";
        return false;
      }
    return true;
  }
  void DescribeTo(std::ostream* out) const { *out << "has all numbers below " << n; }
  void DescribeNegationTo(std::ostream* out) const { *out << "lacks numbers"; }
};

TEST(UnloadDeathTest, ProcessExitWritesWhatIsQueuedAndEnds) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  constexpr int lines = 100;  // fewer than the log keeps: nothing may be dropped
  const auto refuse_and_exit = [](void (*leave)(int)) {
    host_system::output_to_errors();
    const std::string file = (std::filesystem::temp_directory_path() /
                              ("korvex-unload-" + std::to_string(std::random_device{}())))
                                 .string();
    std::ofstream(file) << "in the way";
    static const library* lib = nullptr;  // stays loaded to the end
    lib = new library;
    const auto on_disk =
        lib->function<Korvex* (*)(int, const char*, const char*)>("KorvexOnDiskInstance");
    for (int i = 0; i < lines; ++i) on_disk(4, (file + "/" + std::to_string(i)).c_str(), "a");
    std::filesystem::remove(file);
    leave(5);
  };
  EXPECT_EXIT(refuse_and_exit(std::exit), testing::ExitedWithCode(5), numbered_lines{lines});
  EXPECT_EXIT(refuse_and_exit(host_system::end_process), testing::ExitedWithCode(5),
              numbered_lines{lines});
}

}  // namespace
