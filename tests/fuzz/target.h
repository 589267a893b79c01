#ifndef KORVEX_TESTS_FUZZ_TARGET_H
#define KORVEX_TESTS_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "fuzz/damage.h"

// One body for each format on disk, and one for those of the tool. A fuzzer calls it with new bytes again and again, a test with
// those of the corpus. It returns when the library took or refused the files as it should; the
// process ends when it did not.
namespace korvex::fuzz {

void index_file(const std::uint8_t* data, std::size_t size);    // blocks of the index file
void record(const std::uint8_t* data, std::size_t size);        // record, hashes, rings in it
void block_file(const std::uint8_t* data, std::size_t size);    // files of a record store
void bloom_filter(const std::uint8_t* data, std::size_t size);  // units of a filter
void hash_table(const std::uint8_t* data, std::size_t size);    // items of a table
void result_cache(const std::uint8_t* data, std::size_t size);  // its entries
void disk_probe(const std::uint8_t* data, std::size_t size);    // the kept figures
void directory(const std::uint8_t* data, std::size_t size);     // a whole index, all of its files
void vector_file(const std::uint8_t* data, std::size_t size);   // what the tool reads

struct target {
  const char* name;
  void (*body)(const std::uint8_t* data, std::size_t size);
};
inline constexpr target targets[] = {
#ifdef KORVEX_FUZZ_HDF5  // the tool is built
    {"vector_file", vector_file},
#endif
    {"index_file", index_file},     {"record", record},         {"block_file", block_file},
    {"bloom_filter", bloom_filter}, {"hash_table", hash_table}, {"result_cache", result_cache},
    {"disk_probe", disk_probe},     {"directory", directory}};

// A directory in memory where the system has such a place, gone when the process exits.
class workshop {
 public:
  // `build` writes the sound files into path().
  // `below` lies between the base and the files: "" or "/some/path".
  workshop(const char* name, const std::function<void(const workshop&)>& build,
           const std::string& below = "");
  ~workshop();
  workshop(const workshop&) = delete;
  workshop& operator=(const workshop&) = delete;

  // Sound files with the damage of the input: to all of them, or to the one of that name.
  void lay_out(input* in, const std::string& only = "") const;

  const std::string& base() const { return base_; }
  const std::string& path() const { return path_; }
  const std::vector<file_image>& images() const { return images_; }
  // What lies in the directory now, the first bytes of each file.
  std::vector<std::string> contents() const;

 private:
  std::string base_;
  std::string path_;
  std::vector<file_image> images_;
};

// The lines of the library go nowhere.
void silence();

}  // namespace korvex::fuzz

#endif  // KORVEX_TESTS_FUZZ_TARGET_H
