// From a size on, mappings ask the system for large pages.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "runtime/platform/files.h"
#include "runtime/platform/memory.h"
#include "runtime/platform/threads.h"

namespace korvex::platform {
namespace {

constexpr std::uint64_t advised_bytes = std::uint64_t{64} << 20;

// Whether the mapping at an address asked for large pages.
bool asks_for_large_pages(const void* data) {
  const auto wanted = reinterpret_cast<std::uintptr_t>(data);
  std::ifstream maps("/proc/self/smaps");
  bool inside = false;
  for (std::string line; std::getline(maps, line);) {
    std::uintptr_t begin = 0, end = 0;
    char dash = 0;
    if (std::istringstream(line) >> std::hex >> begin >> dash >> end && dash == '-')
      inside = wanted >= begin && wanted < end;
    if (inside && line.starts_with("VmFlags:")) return line.find(" hg") != std::string::npos;
  }
  return false;
}

bool system_has_large_pages() {
  return std::filesystem::exists("/sys/kernel/mm/transparent_hugepage/enabled") &&
         large_page_size() != 0;
}

TEST(LargeMappings, InMemoryAskForLargePagesAndBeginAtOne) {
  for (const std::uint64_t size : {advised_bytes - page_size(), advised_bytes + page_size()}) {
    std::uint64_t mapped = 0;
    auto* const data = static_cast<char*>(map_anonymous(size, 64, false, &mapped));
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(mapped, size);
    data[0] = data[size / 2] = data[size - 1] = 1;
    EXPECT_EQ(data[1] + data[size - 2], 0);
    const bool large = size >= advised_bytes;
    if (large && large_page_size() != 0) {
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(data) % large_page_size(), 0u);
    }
    if (system_has_large_pages()) {
      EXPECT_EQ(asks_for_large_pages(data), large) << size;
    }
    unmap_anonymous(data, mapped);
  }
}

TEST(LargeMappings, OfFilesAskForLargePages) {
  const std::string path =
      std::filesystem::temp_directory_path() / ("korvex-large-" + std::to_string(process_id()));
  for (const std::uint64_t size : {advised_bytes - page_size(), advised_bytes + page_size()}) {
    const int fd = open_file(path.c_str(), open_mode::truncate);
    ASSERT_EQ(set_file_size(fd, size), 0);
    void* native = nullptr;
    const char* call = nullptr;
    long error = 0;
    auto* const data = static_cast<char*>(map_file(fd, size, false, &native, &call, &error));
    ASSERT_NE(data, nullptr);
    data[size - 1] = 'z';
    EXPECT_EQ(flush_view(data + size - 1, 1), 0);
    char last = 0;
    EXPECT_EQ(read_at(fd, &last, 1, size - 1), 1);
    EXPECT_EQ(last, 'z');
    if (system_has_large_pages()) {
      EXPECT_EQ(asks_for_large_pages(data), size >= advised_bytes) << size;
    }
    unmap_file(data, size, native);
    close_file(fd);
  }
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace korvex::platform
