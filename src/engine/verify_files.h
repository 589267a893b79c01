#ifndef KORVEX_ENGINE_VERIFY_FILES_H
#define KORVEX_ENGINE_VERIFY_FILES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "engine/verify.h"
#include "runtime/log.h"
#include "storage/vector_store_format.h"

// What the parts of the check share: read-only views of files, and the list of findings.
namespace korvex::verify {

// A word of a file, at any alignment. Read once and kept: another process may be writing.
template <class T>
T read(const std::byte* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

// A whole file, mapped read-only. Empty when it cannot be mapped.
class mapped_file {
 public:
  mapped_file() = default;
  explicit mapped_file(const std::string& path);
  ~mapped_file();
  mapped_file(mapped_file&& other) noexcept;
  mapped_file& operator=(mapped_file&& other) noexcept;

  explicit operator bool() const { return data_ != nullptr; }
  const std::byte* data() const { return data_; }
  std::uint64_t size() const { return size_; }

 private:
  const std::byte* data_ = nullptr;
  std::uint64_t size_ = 0;
  void* native_ = nullptr;
};

// Writes findings into a report; of each check only the first few are listed.
class findings {
 public:
  explicit findings(verify_report* report) : report_(*report) {}
  ~findings() = default;
  findings(const findings&) = delete;
  findings& operator=(const findings&) = delete;

  KORVEX_PRINTF(3, 4) void note(const char* check, const char* format, ...);
  KORVEX_PRINTF(3, 4) void warning(const char* check, const char* format, ...);
  KORVEX_PRINTF(3, 4) void error(const char* check, const char* format, ...);
  KORVEX_PRINTF(4, 5)
  void add(verify_severity severity, const char* check, const char* format, ...);
  // Says how many were left out. Nothing is added after it.
  void close();

 private:
  void put(verify_severity severity, const char* check, std::string text);

  struct tally {
    std::uint64_t count = 0;
    verify_severity worst = verify_severity::note;
  };
  verify_report& report_;
  std::map<std::string, tally> tallies_;
};

using file_contents = std::map<std::string, std::string>;  // what the file of a name holds

// The records of a store, from all its blocks up to the first that is missing or bad.
class store_view {
 public:
  store_view() = default;
  // Bad blocks become findings. `claimed` takes the files that were looked at.
  store_view(const std::string& directory, const vector_file_names_s& names, findings* out,
             file_contents* claimed);

  std::uint32_t size() const { return size_; }  // the first id without a record
  std::uint32_t record_size() const { return names_.record_size; }
  std::uint32_t records_per_block() const { return names_.records_per_block; }
  std::uint32_t block_count() const { return static_cast<std::uint32_t>(blocks_.size()); }
  // Records of a block that were handed out.
  std::uint32_t used(std::uint32_t block) const { return used_[block]; }
  const std::byte* record(std::uint32_t id) const {
    if (id >= size_) return nullptr;
    return blocks_[id / names_.records_per_block].data() + sizeof(vector_block_header_s) +
           std::uint64_t{id % names_.records_per_block} * names_.record_size;
  }

 private:
  bool add_block(const std::string& path, const std::string& file, findings* out);
  static void check_header(const vector_block_header_s& header, std::uint64_t bytes,
                           const std::string& file, findings* out);

  vector_file_names_s names_{};
  std::vector<mapped_file> blocks_;
  std::vector<std::uint32_t> used_;
  std::uint32_t size_ = 0;
};

// All of an index that its parts need.
struct index_view {
  std::string directory, name;
  hnsw_s record{};
  bool clean_close = false;
  store_view stores[7];  // by kind - 1; the seventh holds the star arrays
  file_contents claimed;

  const store_view& vectors() const { return stores[0]; }
  const store_view& graph() const { return stores[1]; }
  const store_view& magnitudes() const { return stores[2]; }
  const store_view& flags() const { return stores[3]; }
  const store_view& stars() const { return stores[6]; }
  std::uint32_t probes() const { return record.shape_probes; }
  // The first id that no store can answer for.
  std::uint32_t size() const;
  // The probe that a point belongs to.
  std::uint32_t probe_of(std::uint32_t id) const { return id <= probes() ? id - 1 : id % probes(); }
  std::uint8_t flags_of(std::uint32_t id) const { return read<std::uint8_t>(flags().record(id)); }
  // The ids in the list of a point, up to its end mark.
  std::vector<std::uint32_t> neighbours(std::uint32_t id) const;
  std::uint32_t slot(std::uint32_t id, std::uint32_t position) const {
    return read<std::uint32_t>(graph().record(id) + 4 + std::uint64_t{4} * position);
  }
  bool is_seed(std::uint32_t id) const;
};

// The bytes that the index file stands for: its own, or those that a cut off compaction saved.
struct index_bytes {
  const std::byte* data = nullptr;
  std::uint64_t available = 0;
  std::uint64_t file_size = 0;
};

// A block of the index file by its id, null unless it holds at least `bytes`. For files that
// check_allocator has passed.
const std::byte* find_block(const index_bytes& file, std::uint64_t id, std::uint64_t bytes);

// False when nothing further can be read from the file.
bool check_allocator(const index_bytes& file, findings* out);
bool check_record(const index_bytes& file, const std::string& directory, hnsw_s* record,
                  findings* out);
void check_counters(const index_view& index, findings* out);
void check_points(const index_view& index, bool summary, verify_statistics* statistics,
                  findings* out);
// Returns the ids of the stars of each probe.
std::vector<std::vector<std::uint32_t>> check_hashes(const index_view& index,
                                                     const index_bytes& file,
                                                     verify_statistics* statistics, findings* out);
void check_reach(const index_view& index, const std::vector<std::vector<std::uint32_t>>& stars,
                 verify_statistics* statistics, findings* out);
void check_cache(index_view* index, verify_statistics* statistics, findings* out);
void check_bloom(index_view* index, verify_statistics* statistics, findings* out);

}  // namespace korvex::verify

#endif  // KORVEX_ENGINE_VERIFY_FILES_H
