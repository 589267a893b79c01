#include <hnswlib/hnswlib.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "adapter.h"

// Compiled for the processor at hand, as the library's own documents ask for: its kernels are chosen by the compiler.
// Its counter of distances takes in neighbours that were met before, so it is not reported.
namespace korvex::compare {

namespace {

constexpr std::size_t level_seed = 100;  // the library's default
constexpr std::size_t rows_a_turn = 16;

class hnswlib_adapter final : public one_by_one_adapter {
 public:
  explicit hnswlib_adapter(const index_settings& settings)
      : links_(settings.links),
        construction_effort_(settings.construction_effort),
        space_(settings.dimension),
        index_(&space_, settings.capacity, static_cast<std::size_t>(links_),
               static_cast<std::size_t>(construction_effort_), level_seed) {}

  std::string description() const override {
    return "hnswlib, compiled -O3 -march=native, M " + std::to_string(links_) +
           ", ef_construction " + std::to_string(construction_effort_);
  }

  void build(const matrix& vectors, int threads) override {
    index_.addPoint(vectors.row(0), 0);
    std::atomic<std::size_t> next{1};
    const auto add = [&] {
      for (std::size_t first; (first = next.fetch_add(rows_a_turn)) < vectors.rows;)
        for (std::size_t row = first; row < std::min(first + rows_a_turn, vectors.rows); ++row)
          index_.addPoint(vectors.row(row), row);
    };
    std::vector<std::thread> others;
    for (int i = 1; i < threads; ++i) others.emplace_back(add);
    add();
    for (std::thread& other : others) other.join();
  }

  bool prepare(unsigned effort, int) override {
    index_.setEf(effort);
    return true;
  }

 private:
  void search_one(const float* query, unsigned k, std::uint32_t* ids, int) override {
    auto found = index_.searchKnn(query, k);  // farthest first
    std::fill_n(ids, k, no_id);
    for (std::size_t i = found.size(); i-- > 0; found.pop())
      ids[i] = static_cast<std::uint32_t>(found.top().second);
  }

  const int links_;
  const int construction_effort_;
  hnswlib::L2Space space_;
  hnswlib::HierarchicalNSW<float> index_;
};

}  // namespace

std::unique_ptr<adapter> make_hnswlib(const index_settings& settings) {
  return std::make_unique<hnswlib_adapter>(settings);
}

}  // namespace korvex::compare
