#include <algorithm>
#include <stdexcept>

#include "adapter.h"
#include "engine/walk.h"
#include "korvex/engine.h"

namespace korvex::compare {

namespace {

constexpr int pattern_probes = 1;

// Through the C functions: additions one by one, each query answered on the thread that asks it.
class korvex_direct final : public one_by_one_adapter {
 public:
  explicit korvex_direct(const index_settings& settings)
      : links_(settings.links),
        construction_effort_(settings.construction_effort),
        index_(::korvex_init(static_cast<std::uint32_t>(settings.dimension), 0, nullptr, nullptr)) {
    if (index_ == nullptr) throw std::runtime_error("korvex: no index could be made");
    ::korvex_set_distance_type(index_, KORVEX_DISTANCE_L2_SQUARE);
    ::korvex_set_partitions(index_, pattern_probes);
    ::korvex_set_neighbors_count(index_, links_);
    ::korvex_set_radius(index_, construction_effort_);
  }
  ~korvex_direct() override { ::korvex_free(index_); }
  korvex_direct(const korvex_direct&) = delete;
  korvex_direct& operator=(const korvex_direct&) = delete;

  std::string description() const override {
    return "korvex " + std::string(::korvex_version()) + ", direct search, constellation " +
           std::to_string(links_) + ", radius " + std::to_string(construction_effort_) +
           ", 1 pattern probe";
  }

  void build(const matrix& vectors, int threads) override {
    ::korvex_set_threads(index_, threads);
    for (std::size_t row = 0; row < vectors.rows; ++row) {
      std::uint32_t id = 0;
      if (::korvex_try_add(index_, vectors.row(row), 0, &id) != 0 || id != row)
        throw std::runtime_error("korvex: an addition failed");
    }
    ::korvex_wait_finish_adding(index_);
  }

  bool prepare(unsigned effort, int) override {
    options_.size = sizeof options_;
    options_.radius = static_cast<std::int32_t>(effort);
    return true;
  }

  std::uint64_t evaluations() const override { return walk_evaluations_total(); }

 private:
  // A failure leaves ids that recall does not forgive.
  void search_one(const float* query, unsigned k, std::uint32_t* ids, int) override {
    static_assert(no_id == KORVEX_NO_ID);  // where it finds fewer
    std::fill_n(ids, k, no_id);
    ::korvex_search_direct(index_, query, 1, static_cast<int>(k), &options_, ids, nullptr, nullptr);
  }

  const int links_;
  const int construction_effort_;
  ::hnsw_s* const index_;
  korvex_direct_options_s options_{};
};

}  // namespace

std::unique_ptr<adapter> make_korvex_direct(const index_settings& settings) {
  return std::make_unique<korvex_direct>(settings);
}

}  // namespace korvex::compare
