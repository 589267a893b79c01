#include "cli/query_batch.h"

#include <algorithm>
#include <atomic>
#include <thread>

#include "cli/errors.h"
#include "cli/interrupt.h"
#include "korvex/engine.h"
#include "math/topology.h"
#include "runtime/platform/clock.h"

namespace korvex::cli {

namespace {

constexpr std::size_t queries_a_call = 8;

bool ask(const disk_index& index, const float* queries, std::size_t first, std::size_t n,
         const query_options& options, answer_rows& answers) {
  korvex_direct_options_s direct{};
  direct.size = sizeof direct;
  direct.radius = options.radius;
  const std::size_t row = first * answers.k;
  return ::korvex_search_direct(index.get(), queries + first * index.dimension(), n, options.k,
                                &direct, answers.ids.data() + row, answers.distances.data() + row,
                                answers.counts.data() + first) == static_cast<std::int64_t>(n);
}

void make_room(answer_rows& answers, std::size_t n, int k) {
  answers.k = static_cast<std::size_t>(k);
  answers.ids.resize(n * answers.k);
  answers.distances.resize(n * answers.k);
  answers.counts.resize(n);
}

[[noreturn]] void refuse() {
  throw tool_error(exit_failed, "the index did not answer a query; --log tells more");
}

}  // namespace

void answer_queries(const disk_index& index, const float* queries, std::size_t n,
                    const query_options& options, answer_rows& answers) {
  make_room(answers, n, options.k);
  std::atomic<std::size_t> next{0};
  std::atomic<bool> failed{false};
  const auto work = [&] {
    while (!failed && interrupted() == 0) {
      const std::size_t first = next.fetch_add(queries_a_call);
      if (first >= n) return;
      if (!ask(index, queries, first, std::min(queries_a_call, n - first), options, answers))
        failed = true;
    }
  };
  const std::size_t wanted =
      static_cast<std::size_t>(options.threads > 0 ? options.threads : cpu_count());
  const std::size_t threads = std::min(wanted, (n + queries_a_call - 1) / queries_a_call);
  {
    std::vector<std::jthread> workers;
    for (std::size_t i = 1; i < threads; ++i) workers.emplace_back(work);
    work();
  }
  if (failed) refuse();
}

std::vector<double> time_queries(const disk_index& index, const float* queries, std::size_t n,
                                 const query_options& options) {
  answer_rows answers;
  make_room(answers, 1, options.k);
  std::vector<double> seconds;
  seconds.reserve(n);
  for (std::size_t i = 0; i < n && interrupted() == 0; ++i) {
    const std::uint64_t began = platform::monotonic_ns();
    if (!ask(index, queries + i * index.dimension(), 0, 1, options, answers)) refuse();
    seconds.push_back(static_cast<double>(platform::monotonic_ns() - began) / 1e9);
  }
  return seconds;
}

}  // namespace korvex::cli
