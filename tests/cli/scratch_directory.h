#ifndef KORVEX_TESTS_CLI_SCRATCH_DIRECTORY_H
#define KORVEX_TESTS_CLI_SCRATCH_DIRECTORY_H

#include <gtest/gtest.h>
#include <zlib.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "runtime/platform/threads.h"

namespace korvex::cli::testing_support {

// A directory of its own for a test's files.
class ScratchDirectory : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::remove_all(root_);
    std::filesystem::create_directories(root_);
  }
  void TearDown() override { std::filesystem::remove_all(root_); }

  std::string path(const std::string& name) const { return (root_ / name).string(); }

  // Compressed when the name ends in ".gz".
  std::string write(const std::string& name, const std::string& bytes) const {
    if (!name.ends_with(".gz")) return write_plain(name, bytes);
    const gzFile file = gzopen(path(name).c_str(), "wb1");
    if (!bytes.empty()) gzwrite(file, bytes.data(), static_cast<unsigned>(bytes.size()));
    gzclose(file);
    return path(name);
  }
  std::string write_plain(const std::string& name, const std::string& bytes) const {
    std::ofstream(path(name), std::ios::binary) << bytes;
    return path(name);
  }
  static std::string read_file(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  const std::filesystem::path root_ =
      std::filesystem::temp_directory_path() /
      ("korvex-cli-" + std::to_string(platform::process_id()) + "-" +
       testing::UnitTest::GetInstance()->current_test_info()->name());
};

// The bytes of a number in a byte order.
template <typename Number>
std::string bytes_of(Number value, std::endian order = std::endian::little) {
  std::string bytes(sizeof value, '\0');
  std::memcpy(bytes.data(), &value, sizeof value);
  return order == std::endian::native ? bytes : std::string(bytes.rbegin(), bytes.rend());
}

}  // namespace korvex::cli::testing_support

#endif  // KORVEX_TESTS_CLI_SCRATCH_DIRECTORY_H
