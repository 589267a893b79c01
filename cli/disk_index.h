#ifndef KORVEX_CLI_DISK_INDEX_H
#define KORVEX_CLI_DISK_INDEX_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cli/metric.h"
#include "engine/record.h"

namespace CLI {
class App;
}

namespace korvex::cli {

// What an index is created with.
struct index_shape {
  std::uint32_t dimension = 0;
  metric_choice metric;
  int constellation = 16;
  int radius = 200;  // candidates looked at while a vector is linked
  int probes = 2;
  bool labels = false;
  std::uint64_t expected_rows = 0;  // 0: not known
};

// Which index is meant.
struct index_place {
  std::string directory, name;
};
// The positional DIR and --name.
void add_place_options(CLI::App& command, index_place& place);

// An index on disk that this process has open.
// Failure  every call throws tool_error; the texts name directory and index
class disk_index {
 public:
  // Refuses where an index of that name is already. Until keep() the destructor removes again what
  // was created.
  static std::unique_ptr<disk_index> create(const index_place& place, const index_shape& shape,
                                            int threads);
  // `threads` link what is added. Writers refuse an index with errors; readers only say so.
  static std::unique_ptr<disk_index> open(const index_place& place, int threads, bool for_writing);
  ~disk_index();
  disk_index(const disk_index&) = delete;
  disk_index& operator=(const disk_index&) = delete;

  hnsw_s* get() const { return record_; }
  std::uint32_t dimension() const { return record_->dimension; }
  const metric_choice& metric() const { return metric_; }
  bool has_labels() const;
  std::uint32_t size() const;           // ids that were handed out
  std::uint32_t linked() const;         // of them, those that every search finds
  bool hidden(std::uint32_t id) const;  // deleted, or repeats another vector
  bool deleted(std::uint32_t id) const;

  // From now on the destructor leaves the files.
  void keep() { created_ = false; }
  // Everything to the device, then closed in order.
  void close();

 private:
  disk_index() = default;
  void remove_created();

  hnsw_s* record_ = nullptr;
  metric_choice metric_;
  std::string directory_;  // of the files
  std::string name_;
  std::vector<std::string> files_before_;
  bool base_existed_ = true;
  bool created_ = false;
};

}  // namespace korvex::cli

#endif  // KORVEX_CLI_DISK_INDEX_H
