#ifndef KORVEX_BENCH_COMPARE_PARALLEL_H
#define KORVEX_BENCH_COMPARE_PARALLEL_H

#include <algorithm>
#include <cstddef>
#include <thread>
#include <vector>

namespace korvex::compare {

// Calls work(first, last) for equal shares of [0, count), one a processor, and waits. `work` must not throw.
template <class Work>
void in_parallel(std::size_t count, const Work& work) {
  const std::size_t shares = std::max(std::thread::hardware_concurrency(), 1u);
  std::vector<std::thread> others;
  for (std::size_t share = 1; share < shares; ++share)
    others.emplace_back([&work, count, share, shares] {
      work(count * share / shares, count * (share + 1) / shares);
    });
  work(std::size_t{0}, count / shares);
  for (std::thread& other : others) other.join();
}

}  // namespace korvex::compare

#endif  // KORVEX_BENCH_COMPARE_PARALLEL_H
