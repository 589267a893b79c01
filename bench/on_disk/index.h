#ifndef KORVEX_BENCH_ON_DISK_INDEX_H
#define KORVEX_BENCH_ON_DISK_INDEX_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "dataset.h"
#include "korvex/korvex.h"

namespace korvex::on_disk {

using compare::matrix;

struct index_settings {
  std::string base;  // of an index on disk; empty: in memory
  std::size_t dimension = 0;
  int links = 16;
  int construction_effort = 200;
  int threads = 2;
  unsigned effort = 100;  // candidates that a search keeps
  unsigned k = 10;
  unsigned long long disk_cache = 0;  // as enableDiskCache takes it
};

// Where the files of the index are.
std::string files_of(const index_settings& settings);

struct answer_lists {
  std::vector<std::uint32_t> ids;  // k a query
  std::vector<float> distances;

  bool same_row(const answer_lists& other, std::size_t query, unsigned k) const;
};

struct taken {
  double seconds = 0;
  double processor_seconds = 0;  // of all threads: what a busy machine leaves nearly as it is
};

struct destroyer {
  template <class T>
  void operator()(T* object) const {
    object->destroy();
  }
};

// An index through the binary contract, as a host sees it. One search thread, one pattern probe, result cache off.
class host_index {
 public:
  explicit host_index(const index_settings& settings);

  // Rows [first, last) get the ids that follow; returns when all are linked.
  void add(const matrix& vectors, std::size_t first, std::size_t last);
  // One query at a time.
  answer_lists ask(const matrix& queries, std::size_t n);
  // What all queries take in one bulk call; ids receives k a query.
  taken ask_in_bulk(const matrix& queries, std::vector<std::uint32_t>* ids);

 private:
  const index_settings settings_;
  std::unique_ptr<Korvex, destroyer> index_;
  std::unique_ptr<KorvexQuery, destroyer> query_;  // sessions are given up before the index
  std::unique_ptr<KorvexBulkQuery, destroyer> bulk_;
};

// Seconds since an arbitrary moment.
double seconds_now();

}  // namespace korvex::on_disk

#endif  // KORVEX_BENCH_ON_DISK_INDEX_H
