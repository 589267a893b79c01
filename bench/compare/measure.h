#ifndef KORVEX_BENCH_COMPARE_MEASURE_H
#define KORVEX_BENCH_COMPARE_MEASURE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "adapter.h"
#include "dataset.h"
#include "truth.h"

namespace korvex::compare {

struct peer_result;
enum class phase { building, searching };

struct plan {
  std::vector<const peer*> peers;
  index_settings settings;
  std::vector<int> build_threads;
  std::vector<int> search_threads;
  int build_rounds = 1;
  int search_rounds = 3;
  std::vector<unsigned> efforts;  // ascending
  unsigned k = 10;
  // Processor time of all threads instead of time gone by: for machines that are busy with other things.
  bool processor_time = false;
  // Called behind each round, the first one being 1, with all that is measured by then.
  std::function<void(phase, int round, const std::vector<peer_result>&)> after_round;
};

// One point of a curve. The vectors hold one number a round: of all queries, of the middle query, and of the one that
// only a hundredth take longer than. The latter two are empty when the library does not tell queries apart.
struct level {
  unsigned effort = 0;
  double recall = 0;
  double evaluations = 0;  // a query, 0 when not counted
  std::vector<double> seconds;
  std::vector<double> p50_seconds;
  std::vector<double> p99_seconds;
};

struct curve {
  int threads = 0;
  std::vector<level> levels;  // ascending efforts
};

struct build_times {
  int threads = 0;
  std::vector<double> seconds;  // one a round
};

struct peer_result {
  std::string name;
  std::string description;
  double bytes_a_vector = 0;  // growth of resident memory by the first build
  std::vector<build_times> builds;
  std::vector<curve>
      curves;  // one a thread count, without levels when the library cannot search that way
};

// Builds and searches with all peers in turn. Rounds and, within a search round, efforts and thread counts are the outer
// loops and peers the innermost, in an order that turns round each time: whatever drifts on the machine meets all of them.
// A build has as many processors as it has threads. The index of the last build is searched; a first pass of each level
// without a clock warms it up and takes its recall.
std::vector<peer_result> measure(const plan& plan, const dataset& data, const exact_truth& truth);

}  // namespace korvex::compare

#endif  // KORVEX_BENCH_COMPARE_MEASURE_H
