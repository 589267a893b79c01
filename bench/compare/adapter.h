#ifndef KORVEX_BENCH_COMPARE_ADAPTER_H
#define KORVEX_BENCH_COMPARE_ADAPTER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "dataset.h"

namespace korvex::compare {

inline constexpr std::uint32_t no_id = 0xFFFFFFFF;

// The same for every library, so that the graphs are of one size.
struct index_settings {
  std::size_t dimension = 0;
  std::size_t capacity = 0;       // vectors, known to those libraries that must know it ahead
  int links = 16;                 // neighbours a new vector chooses; twice as many may point at it
  int construction_effort = 200;  // candidates looked at while a vector is linked
  int search_threads = 1;         // for those libraries that settle it once
};

// One pass over all queries.
struct query_pass {
  const matrix& queries;
  unsigned k;
  int threads;
  std::uint32_t* ids;  // out: k a query, nearest first, no_id where there is none
  double*
      latencies;  // out: seconds of each query; left alone by libraries that answer all in one call
};

// One library under measurement: an empty index from its making on. Squared Euclidean distance.
// Threads     called from one thread.
class adapter {
 public:
  virtual ~adapter() = default;
  // Name, version and settings, for the report.
  virtual std::string description() const = 0;
  // Adds all rows, row i under id i, and returns when all are searchable. Called once; this call is what is timed.
  virtual void build(const matrix& vectors, int threads) = 0;
  // Before searches with other numbers, and not timed. False when the library does not search that way: efforts that
  // are smaller than its least, thread counts that it cannot change any more.
  virtual bool prepare(unsigned effort, int threads) = 0;
  // With the effort that was prepared. Timed.
  virtual void search_all(const query_pass& pass) = 0;
  // Distances computed by searches so far, 0 when the library does not count them.
  virtual std::uint64_t evaluations() const { return 0; }
};

// A library that answers a query on the thread that asks it: as many threads as a pass wants take queries in turn.
class one_by_one_adapter : public adapter {
 public:
  void search_all(const query_pass& pass) final;

 protected:
  // One query. Called by several threads at once, each with a number of its own from 0 on. May not throw.
  virtual void search_one(const float* query, unsigned k, std::uint32_t* ids, int thread) = 0;

 private:
  void search_some(const query_pass& pass, std::atomic<std::size_t>& next, int thread);
};

// A library that this program knows. One that was missing when the program was built has no `make`, but a reason.
struct peer {
  const char* name;
  std::unique_ptr<adapter> (*make)(const index_settings&);
  const char* absent;
  bool counts_evaluations = false;
};

// The measured library first, those that it is measured against behind it.
std::span<const peer> peers();
const peer* find_peer(const std::string& name);

// Each stands in its own file.
std::unique_ptr<adapter> make_korvex_direct(const index_settings& settings);
std::unique_ptr<adapter> make_korvex_contract(const index_settings& settings);
std::unique_ptr<adapter> make_hnswlib(const index_settings& settings);
std::unique_ptr<adapter> make_faiss(const index_settings& settings);

}  // namespace korvex::compare

#endif  // KORVEX_BENCH_COMPARE_ADAPTER_H
