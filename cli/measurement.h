#ifndef KORVEX_CLI_MEASUREMENT_H
#define KORVEX_CLI_MEASUREMENT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "cli/dataset.h"
#include "cli/metric.h"
#include "korvex/korvex.h"

namespace korvex::cli {

struct index_options {
  metric_choice metric = metric_named("l2sq");
  int constellation = 16;
  int radius = 200;
  int probes = 2;
  int index_threads = 0;
  int search_threads = 0;
  int result_cache = 0;  // as korvex_set_result_cache takes it
};

struct destroy_index {
  void operator()(Korvex* index) const { index->destroy(); }
};
using index_handle = std::unique_ptr<Korvex, destroy_index>;

struct built_index {
  index_handle index;
  double seconds = 0;           // from the first addition until every vector is linked
  double bytes_per_vector = 0;  // what the process's resident memory grew by meanwhile
};

// Builds an index in memory through the public interface; row i of the base gets the id i. Under cosine
// the index keeps unit copies, and its distances are dot products with them.
// Requirements  start_log ran
// Failure       throws tool_error
built_index build_index(const matrix& base, const index_options& options);

struct answer {
  std::vector<std::uint32_t> ids;  // nearest first
  std::vector<float> distances;
};

using answer_listener =
    std::function<void(std::size_t query, const std::uint32_t* ids, std::size_t count)>;

// One query alone, through a session of its own.
answer ask_once(Korvex& index, const float* query, int radius, int k);

// Seconds that one bulk query of all the queries takes, from the call to its notice. The host's
// thread sleeps meanwhile: the search threads do all the work. Each answer is handed out after the
// clock stopped; a null listener hands out nothing.
double time_bulk(Korvex& index, const matrix& queries, int radius, int k,
                 const answer_listener& listener);

// One session that asks one query at a time: seconds of each, from the call until its results are
// there. Answers are handed out between the timed queries.
std::vector<double> time_sessions(Korvex& index, const matrix& queries, int radius, int k,
                                  const answer_listener& listener,
                                  const std::function<void()>& count_query);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_MEASUREMENT_H
