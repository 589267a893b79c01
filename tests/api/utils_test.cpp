#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <vector>

#include "api/utils_object.h"
#include "api/vector_printer.h"
#include "host_system.h"
#include "runtime/log.h"
#include "runtime/platform/files.h"
#include "runtime/platform/threads.h"

namespace korvex {
namespace {

namespace fs = std::filesystem;

class Utils : public testing::Test {
 protected:
  Utils()
      : directory_(fs::temp_directory_path() /
                   ("korvex-utils-" + std::to_string(platform::process_id()))) {
    fs::create_directories(directory_ / "below.korvex");
  }
  ~Utils() override { fs::remove_all(directory_); }
  std::string touch(const char* name) {
    std::ofstream(directory_ / name) << "x";
    return (directory_ / name).string();
  }
  // What the body writes to the log's first output.
  template <class Body>
  std::string written(Body&& body) {
    const std::string path = touch("output");
    const int before = log_fd();
    const int fd = platform::open_file(path.c_str(), platform::open_mode::truncate);
    log_setfd(fd);
    body();
    log_flush();
    log_setfd(before);
    platform::close_file(fd);
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }

  KorvexUtils* const utils_ = utils_instance();
  const fs::path directory_;
};

TEST_F(Utils, DeletesOneKindOfFileInOneDirectory) {
  for (const char* name : {"a.korvex", "b.korvex", "korvex", "c.korvex.txt", "d.KORVEX"})
    touch(name);
  std::ofstream(directory_ / "below.korvex" / "deep.korvex") << "x";
  const int any_case = host_system::ending_has_any_case ? 1 : 0;
  EXPECT_EQ(utils_->deleteFiles(directory_.string().c_str(), 0, "korvex", 3), 2 + any_case);
  for (const char* name : {"korvex", "c.korvex.txt", "below.korvex/deep.korvex"})
    EXPECT_TRUE(fs::exists(directory_ / name)) << name;
  EXPECT_EQ(utils_->deleteFiles(directory_.string().c_str(), 0, "korvex", 0), 0);
  const std::string a_file = touch("plain");
  const std::string too_long = directory_.string() + std::string(259, '/');
  for (const char* bad : {static_cast<const char*>(nullptr), "", a_file.c_str(), too_long.c_str()})
    EXPECT_EQ(utils_->deleteFiles(bad, 0, "korvex", 0), -1);
}

TEST_F(Utils, EveryThreadDrawsItsOwnNumbers) {
  const auto draw = [this] {
    std::vector<std::uint64_t> numbers;
    for (int i = 0; i < 100; ++i) numbers.push_back(utils_->getRandom64());
    return numbers;
  };
  auto first = std::async(std::launch::async, draw);
  auto second = std::async(std::launch::async, draw);
  EXPECT_NE(first.get(), second.get());

  std::uint32_t lowest = 0xFFFFFFFF, highest = 0;
  std::vector<int> hits(7);
  for (int i = 0; i < 7000; ++i) {
    const std::uint32_t any = utils_->getRandom32Max(0xFFFFFFFF);
    lowest = std::min(lowest, any);
    highest = std::max(highest, any);
    ++hits[utils_->getRandom32Max(6)];
  }
  EXPECT_LT(lowest, 1u << 24);
  EXPECT_GT(highest, 255u << 24);
  for (const int count : hits) EXPECT_NEAR(count, 1000, 200);
}

TEST_F(Utils, PrintsGoWhereTheLogGoes) {
  const std::string text = written([this] {
    utils_->printMemoryUsage("after loading", 0);
    const std::uint32_t ids[] = {7, 0, 4294967295};
    print_vector("(bulk 3)\n", ids);
    print_vector("none\n", {});
  });
  EXPECT_EQ(text.find("after loading"), 0u);
  EXPECT_TRUE(text.ends_with("(bulk 3)\n[7, 0, 4294967295]\nnone\n[]\n")) << text;
}

}  // namespace
}  // namespace korvex
