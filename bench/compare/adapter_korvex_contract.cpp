#include <algorithm>
#include <stdexcept>

#include "adapter.h"
#include "engine/configuration.h"
#include "engine/walk.h"
#include "korvex/korvex.h"

namespace korvex::compare {

namespace {

constexpr int queue_limit = 1'000'000;
constexpr int pattern_probes = 1;

struct destroyer {
  template <class T>
  void operator()(T* object) const {
    object->destroy();
  }
};

// Through the binary contract, as a host sees it: additions one by one, queries in one bulk call.
class korvex_contract final : public adapter {
 public:
  explicit korvex_contract(const index_settings& settings)
      : links_(settings.links),
        construction_effort_(settings.construction_effort),
        search_threads_(settings.search_threads),
        index_(KorvexInstance(static_cast<int>(settings.dimension))) {
    if (!index_) throw std::runtime_error("korvex: no index could be made");
    index_->setDistanceType(Korvex::DISTANCE_L2_SQUARE);
    index_->setPatternProbes(pattern_probes);
    index_->setConstellationSize(links_);
    index_->setRadius(construction_effort_, 0);
    index_->setQueryThreads(search_threads_, queue_limit);
    // Every round asks the same queries: a cache of answers would measure itself.
    korvex_set_result_cache(index_->get_base(0), 0);
  }

  std::string description() const override {
    return "korvex, binary contract, constellation " + std::to_string(links_) + ", radius " +
           std::to_string(construction_effort_) +
           ", 1 pattern probe, result cache off, bulk queries";
  }

  void build(const matrix& vectors, int threads) override {
    index_->setThreads(threads);
    for (std::size_t row = 0; row < vectors.rows; ++row) {
      if (index_->addVector(vectors.row(row), 0, 0) != row)
        throw std::runtime_error("korvex: an addition failed");
    }
    index_->waitForIndexReady();
  }

  // A query looks at as many candidates as a vector has neighbours, at least.
  bool prepare(unsigned effort, int threads) override {
    if (effort < 2 * static_cast<unsigned>(links_) || threads != search_threads_) return false;
    const int radius = static_cast<int>(effort);
    if (!session_) session_.reset(index_->createBulkQuerySession(radius));
    session_->setRadius(radius);
    return true;
  }

  void search_all(const query_pass& pass) override {
    if (session_->query(pass.queries.values.data(), static_cast<int>(pass.queries.rows), 0,
                        static_cast<int>(pass.k)) != 0)
      throw std::runtime_error("korvex: a bulk query failed");
    const korvex_bulk_results_s* const results = session_->getResultIds(0);
    if (results == nullptr || results->valid == 0) throw std::runtime_error("korvex: no results");
    for (std::size_t row = 0; row < pass.queries.rows; ++row)
      copy_row(results->ids + row * pass.k, pass.k, pass.ids + row * pass.k);
  }

  std::uint64_t evaluations() const override { return walk_evaluations_total(); }

 private:
  // A short row ends in zeros, of which the first may be a row's number.
  static void copy_row(const std::uint32_t* found, std::size_t k, std::uint32_t* ids) {
    std::copy_n(found, k, ids);
    for (; k > 1 && found[k - 1] == 0 && found[k - 2] == 0; --k) ids[k - 1] = no_id;
  }

  const int links_;
  const int construction_effort_;
  const int search_threads_;
  std::unique_ptr<Korvex, destroyer> index_;
  std::unique_ptr<KorvexBulkQuery, destroyer> session_;  // given up before the index
};

}  // namespace

std::unique_ptr<adapter> make_korvex_contract(const index_settings& settings) {
  return std::make_unique<korvex_contract>(settings);
}

}  // namespace korvex::compare
