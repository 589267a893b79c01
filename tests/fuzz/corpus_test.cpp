#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include "fuzz/target.h"

// Replays what the fuzzers found and what they begin with. A body that finds a fault ends the
// process.
namespace korvex::fuzz {

static void PrintTo(const target& format, std::ostream* out) {
  *out << format.name;
}

namespace {

class Corpus : public testing::TestWithParam<target> {};

TEST_P(Corpus, IsTakenOrRefused) {
  const auto run = [](const std::string& bytes) {
    GetParam().body(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  };
  run("");  // sound files
  std::vector<std::filesystem::path> inputs;
  for (const auto& entry :
       std::filesystem::directory_iterator(std::string(KORVEX_FUZZ_CORPUS) + "/" + GetParam().name))
    inputs.push_back(entry.path());
  std::sort(inputs.begin(), inputs.end());
  EXPECT_FALSE(inputs.empty());
  for (const auto& path : inputs) {
    SCOPED_TRACE(path);
    std::ifstream file(path, std::ios::binary);
    run({std::istreambuf_iterator<char>(file), {}});
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, Corpus, testing::ValuesIn(targets),
                         [](const auto& format) { return std::string(format.param.name); });

}  // namespace
}  // namespace korvex::fuzz
