#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "adapter.h"

namespace korvex::compare {

namespace {

constexpr std::size_t queries_a_turn = 16;

}  // namespace

void one_by_one_adapter::search_all(const query_pass& pass) {
  std::atomic<std::size_t> next{0};
  std::vector<std::thread> others;
  for (int thread = 1; thread < pass.threads; ++thread)
    others.emplace_back([&, thread] { search_some(pass, next, thread); });
  search_some(pass, next, 0);
  for (std::thread& other : others) other.join();
}

// One look at the clock a query: where one ends the next begins.
void one_by_one_adapter::search_some(const query_pass& pass, std::atomic<std::size_t>& next,
                                     int thread) {
  using clock = std::chrono::steady_clock;
  clock::time_point before = clock::now();
  for (std::size_t first; (first = next.fetch_add(queries_a_turn)) < pass.queries.rows;) {
    const std::size_t end = std::min(first + queries_a_turn, pass.queries.rows);
    for (std::size_t query = first; query < end; ++query) {
      search_one(pass.queries.row(query), pass.k, pass.ids + query * pass.k, thread);
      const clock::time_point now = clock::now();
      pass.latencies[query] = std::chrono::duration<double>(now - before).count();
      before = now;
    }
  }
}

}  // namespace korvex::compare
