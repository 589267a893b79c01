#ifndef KORVEX_TESTS_CLI_TOOL_TEST_H
#define KORVEX_TESTS_CLI_TOOL_TEST_H

#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "cli/dataset.h"
#include "host_system.h"
#include "tests/cli/scratch_directory.h"

namespace korvex::cli::testing_support {

// Runs the real binary in a directory of its own.
class ToolTest : public ScratchDirectory {
 protected:
  void SetUp() override {
    ScratchDirectory::SetUp();
    std::filesystem::current_path(path(""));
  }
  void TearDown() override {
    std::filesystem::current_path(std::filesystem::temp_directory_path());
    ScratchDirectory::TearDown();
  }

  // The tool with these arguments; its exit code. What was written stands in out_ and err_; standard
  // input is empty unless the arguments redirect it.
  int run(const std::string& arguments) {
    return system(std::string("<") + host_system::null_device + " " +
                  host_system::command(KORVEX_TOOL_PATH) + " " + arguments);
  }
  // A command of bash in which `korvex` is the tool; 128 + n after signal n.
  int shell(const std::string& command) {
    write_plain("command.sh", "korvex() { '" KORVEX_TOOL_PATH "' \"$@\"; }\n" + command + "\n");
    return system("</dev/null bash -o pipefail command.sh");
  }

  bool has_program(const std::string& name) const {
    return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
  }

  std::string out_, err_;

 private:
  int system(const std::string& command) {
    // The arguments may send the output elsewhere. Not every shell takes a numbered redirection first.
    const int status = std::system((">out " + command + " 2>err").c_str());
    out_ = read_file(path("out"));
    err_ = read_file(path("err"));
    return host_system::exit_code(status);
  }
};

// Of the vectors that most tests feed.
inline constexpr std::size_t dimension = 8;
inline constexpr std::size_t base_rows = 600;
inline constexpr std::size_t query_rows = 20;

inline matrix random_matrix(std::size_t rows, std::size_t columns, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> component(-50, 50);
  matrix result{columns, rows, std::vector<float>(rows * columns)};
  for (float& value : result.values) value = component(random);
  return result;
}

inline std::string fvecs(const matrix& vectors) {
  std::string bytes;
  for (std::size_t row = 0; row < vectors.rows; ++row) {
    bytes += bytes_of(static_cast<std::int32_t>(vectors.dimension));
    for (std::size_t i = 0; i < vectors.dimension; ++i) bytes += bytes_of(vectors.row(row)[i]);
  }
  return bytes;
}

// The first `count` rows.
inline matrix front_of(const matrix& vectors, std::size_t count) {
  return {vectors.dimension, count,
          std::vector<float>(vectors.row(0), vectors.row(0) + count * vectors.dimension)};
}

}  // namespace korvex::cli::testing_support

#endif  // KORVEX_TESTS_CLI_TOOL_TEST_H
