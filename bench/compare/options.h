#ifndef KORVEX_BENCH_COMPARE_OPTIONS_H
#define KORVEX_BENCH_COMPARE_OPTIONS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace korvex::compare {

// What the command line says.
struct options {
  std::string data = "fashion";
  std::string queries_file;
  std::string format = "auto";
  std::string fashion_directory = "/usr/share/datasets/fashion-mnist";
  std::size_t n_points = 0;
  std::size_t n_queries = 10'000;
  std::size_t dimension = 0;
  std::size_t clusters = 0;
  std::size_t latent = 0;
  double spread = 0;
  double noise = -1;
  bool unit = false;
  std::uint64_t seed = 1;
  std::vector<std::string> peers;
  std::vector<int> build_threads = {1};
  std::vector<int> search_threads = {1};
  int build_rounds = 1;
  int rounds = 3;
  std::vector<unsigned> efforts = {10,  14,  20,  28,  36,  48,  64, 86,
                                   115, 154, 205, 274, 365, 487, 650};
  unsigned k = 10;
  int links = 16;
  int construction_effort = 200;
  bool processor_time = false;
  std::vector<std::size_t> growth;
  std::string truth_cache;
  std::string csv;
  std::string log;
};

void add_options(CLI::App& app, options& o);

// Puts efforts in order and drops those below k, with a line on standard error. Throws std::runtime_error when none
// is left.
void settle_efforts(options& o);

}  // namespace korvex::compare

#endif  // KORVEX_BENCH_COMPARE_OPTIONS_H
