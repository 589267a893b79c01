#include <faiss/IndexFlat.h>
#include <faiss/IndexHNSW.h>
#include <faiss/impl/AuxIndexStructures.h>
#include <faiss/impl/DistanceComputer.h>
#include <faiss/utils/Heap.h>
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "adapter.h"

// Queries go to the graph itself, the library's own interface for one query on one thread: the search of an index is
// made for many queries at once, it starts OpenMP's threads and clears marks for all vectors in every call. Evaluations
// are those of the lowest layer.
namespace korvex::compare {

namespace {

using max_heap = faiss::CMax<float, faiss::Index::idx_t>;

class faiss_adapter final : public one_by_one_adapter {
 public:
  explicit faiss_adapter(const index_settings& settings)
      : index_(static_cast<int>(settings.dimension), settings.links) {
    index_.hnsw.efConstruction = settings.construction_effort;
  }

  std::string description() const override {
    return "Faiss " + std::to_string(FAISS_VERSION_MAJOR) + "." +
           std::to_string(FAISS_VERSION_MINOR) + "." + std::to_string(FAISS_VERSION_PATCH) +
           " as packaged, HNSW, flat vectors, efConstruction " +
           std::to_string(index_.hnsw.efConstruction);
  }

  void build(const matrix& vectors, int threads) override {
    omp_set_num_threads(threads);
    index_.add(static_cast<faiss::Index::idx_t>(vectors.rows), vectors.values.data());
    omp_set_num_threads(1);
  }

  bool prepare(unsigned effort, int threads) override {
    index_.hnsw.efSearch = static_cast<int>(effort);
    while (searchers_.size() < static_cast<std::size_t>(threads))
      searchers_.push_back(std::make_unique<searcher>(index_));
    return true;
  }

  std::uint64_t evaluations() const override { return evaluations_.load(); }

 private:
  void search_one(const float* query, unsigned k, std::uint32_t* ids, int thread) override {
    searcher& own = *searchers_[static_cast<std::size_t>(thread)];
    own.labels.resize(k);
    own.distances.resize(k);
    faiss::heap_heapify<max_heap>(k, own.distances.data(), own.labels.data());
    own.computer->set_query(query);
    const faiss::HNSWStats stats = index_.hnsw.search(
        *own.computer, static_cast<int>(k), own.labels.data(), own.distances.data(), own.visited);
    faiss::heap_reorder<max_heap>(k, own.distances.data(), own.labels.data());
    std::transform(own.labels.begin(), own.labels.end(), ids, [](auto label) {
      return label < 0 ? no_id : static_cast<std::uint32_t>(label);
    });
    // Version 1.7 counts in n3, later ones in ndis.
    evaluations_.fetch_add(stats.n3 + stats.ndis, std::memory_order_relaxed);
  }

  // Of one thread.
  struct searcher {
    explicit searcher(const faiss::IndexHNSWFlat& index)
        : computer(index.storage->get_distance_computer()),
          visited(static_cast<int>(index.ntotal)) {}
    std::unique_ptr<faiss::DistanceComputer> computer;
    faiss::VisitedTable visited;
    std::vector<faiss::Index::idx_t> labels;
    std::vector<float> distances;
  };

  faiss::IndexHNSWFlat index_;
  std::vector<std::unique_ptr<searcher>> searchers_;
  std::atomic<std::uint64_t> evaluations_{0};
};

}  // namespace

std::unique_ptr<adapter> make_faiss(const index_settings& settings) {
  return std::make_unique<faiss_adapter>(settings);
}

}  // namespace korvex::compare
