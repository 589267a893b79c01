#include "runtime/disk_probe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "host_system.h"  // the flags of open
#include "runtime/log.h"
#include "runtime/platform/faults.h"
#include "runtime/platform/files.h"
#include "runtime/platform/threads.h"

namespace korvex {
namespace {

std::string g_lines;

// A directory of its own, and the library's lines in g_lines.
class DiskProbe : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("korvex-disk-probe-test-" + std::to_string(platform::process_id()));
    std::filesystem::create_directories(dir_);
    ASSERT_EQ(log_init(64'000, 0), 0);
    log_setfd(0);
    g_lines.clear();
    log_set_callback([](int, const char*, const char* line, const char*) { g_lines += line; });
  }
  void TearDown() override {
    platform::current_fault_hook = nullptr;
    log_set_callback(nullptr);
    log_setfd(1);
    log_shutdown();
    std::filesystem::remove_all(dir_);
  }
  static bool logged(const std::string& text) {
    EXPECT_EQ(log_wait_empty(-1), 0);
    return g_lines.find(text) != std::string::npos;
  }
  void keep(const std::string& text) const { std::ofstream(result()) << text; }
  std::filesystem::path result() const { return dir_ / "iops_result.txt"; }
  std::filesystem::path scratch() const { return dir_ / "iops_test.inprogress"; }

  std::filesystem::path dir_;
};

TEST_F(DiskProbe, KeptFiguresSaveTheMeasurement) {
  disk_iops_s iops{};
  for (const char* text :
       {"60000.50\n90000.25\n", "  60000.50 90000.25", "60000.5\r\n90000.25\r\n"}) {
    keep(text);
    ASSERT_EQ(disk_perf_test(dir_.string().c_str(), 4096, 0, 1, 0, &iops), 1) << text;
    EXPECT_EQ(iops.read, 60000.5);
    EXPECT_EQ(iops.write, 90000.25);
  }
  EXPECT_TRUE(logged("loading resuls from " + dir_.string() + "/iops_result.txt\n"));
}

TEST_F(DiskProbe, UnusableFiguresAreMeasuredAgainAndFailuresAreTold) {
  platform::current_fault_hook = [](platform::fault_point at) {
    return at == platform::fault_point::resize;
  };
  struct {
    const char* kept;
    unsigned duration;
    int force;
    const char* line;
  } const rows[] = {
      {"60000.50\n", 5000, 0, "block size 4096 file size 100 duration 1000 secs\n"},
      {"inf\n5\n", 9, 0, "block size 4096 file size 100 duration 9 secs\n"},
      {"-1\n-1\n", 9, 0, "block size 4096 file size 100 duration 9 secs\n"},
      {"fast\nslow\n", 0, 0, "block size 4096 file size 100 duration 10 secs\n"},
      {"1.00\n2.00\n", 7, 1, "block size 4096 file size 100 duration 7 secs\n"},
  };
  for (const auto& row : rows) {
    keep(row.kept);
    disk_iops_s iops{5, 5};
    EXPECT_EQ(disk_perf_test(dir_.string().c_str(), 4096, 100, row.duration, row.force, &iops), -1);
    EXPECT_EQ(iops.read, -1.0);
    EXPECT_EQ(iops.write, -1.0);
    EXPECT_TRUE(logged(std::string("starting disk performance test: ") + row.line));
    EXPECT_FALSE(std::filesystem::exists(scratch()));
  }
  platform::current_fault_hook = nullptr;
  EXPECT_EQ(measure_iops((dir_ / "none" / "file").string().c_str(), 4096, 0, 1, 1), -1.0);
  EXPECT_TRUE(logged("failed to open test file: "));
  EXPECT_EQ(measure_iops(scratch().string().c_str(), 0, 0, 1, 1), -1.0);
  EXPECT_TRUE(logged("failed to allocate buffer for test\n"));
}

TEST_F(DiskProbe, MeasuresBothWaysAndKeepsTheFigures) {
  const int fd = open_with_direct_io((dir_ / "probe").string().c_str(), O_RDWR | O_CREAT, 0);
  if (fd < 0) GTEST_SKIP() << "no unbuffered files in this directory";
  platform::close_file(fd);
  const std::string nested = (dir_ / "a" / "b").string();
  disk_iops_s iops{};
  ASSERT_EQ(disk_perf_test(nested.c_str(), 4096, 1 << 20, 1, 0, &iops), 0);
  EXPECT_GT(iops.read, 0);
  EXPECT_GT(iops.write, 0);
  EXPECT_FALSE(std::filesystem::exists(nested + "/iops_test.inprogress"));
  disk_iops_s again{};
  ASSERT_EQ(disk_perf_test(nested.c_str(), 4096, 1 << 20, 1, 0, &again), 1);
  EXPECT_NEAR(again.read, iops.read, 0.006);
  EXPECT_NEAR(again.write, iops.write, 0.006);
}

TEST_F(DiskProbe, OpenFlagsChooseAccessAndDisposition) {
  const std::string path = (dir_ / "file").string();
  EXPECT_EQ(open_with_direct_io(path.c_str(), O_RDWR, 0), -1) << "absent";
  int fd = open_with_direct_io(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0);
  if (fd < 0) GTEST_SKIP() << "no unbuffered files in this directory";
  EXPECT_EQ(platform::set_file_size(fd, 8192), 0);
  platform::close_file(fd);
  EXPECT_EQ(open_with_direct_io(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_TRUNC, 0), -1);
  for (const int flags : {O_RDWR | O_CREAT, O_WRONLY | O_CREAT, O_RDONLY}) {
    fd = open_with_direct_io(path.c_str(), flags, 0);
    EXPECT_EQ(platform::set_file_size(fd, 8192), flags == O_RDONLY ? -1 : 0);
    platform::close_file(fd);
    EXPECT_EQ(std::filesystem::file_size(path), 8192u);
  }
  for (const int flags : {O_RDWR | O_TRUNC, O_WRONLY | O_CREAT | O_TRUNC}) {
    std::filesystem::resize_file(path, 4096);
    fd = open_with_direct_io(path.c_str(), flags, 0);
    EXPECT_GE(fd, 0);
    platform::close_file(fd);
    EXPECT_EQ(std::filesystem::file_size(path), 0u);
  }
}

TEST_F(DiskProbe, GuessesMemoryFromTheNamesOfADrive) {
  struct {
    const char* model;
    const char* vendor;
    int expected;
  } const rows[] = {
      {nullptr, "Samsung", -1},   {"", "Samsung", -1},      {"SSD 980 PRO", "Samsung", 1},
      {"SN550 Blue", "", 0},      {"SN550 Black", "WD", 1}, {"980 LITE", "", 0},
      {"SN570", "WD", 1},         {"SN570", nullptr, 0},    {"SX8200 Pro", "", 1},
      {"sn850 black", "ACME", 0}, {"P31", "", 0},
  };
  for (const auto& row : rows)
    EXPECT_EQ(nvme_has_dram_by_model(row.model, row.vendor), row.expected)
        << (row.model == nullptr ? "null" : row.model);
}

TEST_F(DiskProbe, AdviceFollowsTheKindOfDrive) {
  const std::string slow_bus = "non-NVMe drive";
  const std::string no_memory = "likely lacks onboard DRAM";
  const std::string old_bus = "uses PCIe Gen3. For";
  const std::string cache = "Consider enabling drive cache";
  const std::string still = "However, you may still need";
  struct {
    int is_nvme, gen, dram;
    std::vector<std::string> lines;
  } const rows[] = {
      {0, 4, 1, {slow_bus, cache, still}},
      {1, 4, 1, {}},
      {1, 5, 0, {no_memory, cache}},
      {1, 3, 1, {old_bus, cache, still}},
      {1, 3, 0, {old_bus, no_memory, cache, still}},
  };
  for (const auto& row : rows) {
    g_lines.clear();
    EXPECT_EQ(print_slow_disk_warning(row.is_nvme, row.gen, row.dram), row.lines.empty() ? 0 : 1);
    for (const std::string& line : {slow_bus, no_memory, old_bus, cache, still})
      EXPECT_EQ(logged(line), std::count(row.lines.begin(), row.lines.end(), line) == 1) << line;
  }
  disk_perf_warning();
  EXPECT_TRUE(logged("(PCIe Gen 4 and better)\n"));
}

}  // namespace
}  // namespace korvex
