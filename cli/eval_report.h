#ifndef KORVEX_CLI_EVAL_REPORT_H
#define KORVEX_CLI_EVAL_REPORT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cli/radius_result.h"

namespace korvex::cli {

struct sample_neighbour {
  std::uint32_t row;  // of the base file
  float distance;
  bool exact;  // among the k nearest
};

struct sample {
  std::size_t query_row;  // of the query file
  std::vector<sample_neighbour> neighbours;
};

struct eval_report {
  std::string base_file, query_file, truth_file;  // no truth file: brute force
  std::size_t base_rows = 0, query_rows = 0, dimension = 0;
  double scale_length = 0;  // 0: vectors as they are in the files
  std::uint64_t seed = 0;
  std::string metric, result_cache, kernels;
  int constellation = 0, index_radius = 0, probes = 0, index_threads = 0, search_threads = 0;
  int k = 0, rounds = 0;
  double truth_seconds = 0;
  double build_seconds = 0;
  double bytes_per_vector = 0;
  std::vector<radius_result> results;
  int sample_radius = 0;
  std::vector<sample> samples;
};

std::string as_table(const eval_report& report);
std::string as_json(const eval_report& report);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_EVAL_REPORT_H
