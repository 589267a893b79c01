#ifndef KORVEX_TESTS_API_CONTRACT_LIBRARY_H
#define KORVEX_TESTS_API_CONTRACT_LIBRARY_H

#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "host.h"

inline constexpr u32 failed = 0xFFFFFFFF;
inline constexpr int dimension = 8;
inline constexpr const float* no_vector = nullptr;
inline constexpr float farthest = std::numeric_limits<float>::max();

// The library, loaded by its path once.
struct library {
  library();
  // Any exported function by its name; throws when there is none.
  template <class F>
  F* function(const char* name) const {
    return reinterpret_cast<F*>(find(name));
  }

  void* handle;
  std::string greeting;
  int (*version)();
  Korvex* (*instance)(int);
  Korvex* (*create)(int);
  Korvex* (*on_disk)(int, const char*, const char*);
  Korvex* (*create_on_disk)(int, const char*, const char*);
  KorvexUtils* (*utils)();
  KorvexUtils* (*create_utils)();
  int (*info)();

 private:
  void* find(const char* name) const;
};
const library& lib();

struct give_up {
  template <class T>
  void operator()(T* object) const {
    object->destroy();
  }
};
using index_ptr = std::unique_ptr<Korvex, give_up>;
using query_ptr = std::unique_ptr<KorvexQuery, give_up>;
using bulk_ptr = std::unique_ptr<KorvexBulkQuery, give_up>;

// Rows of `dimension` components in (-1000, 1000).
std::vector<float> random_vectors(int n, unsigned seed);
const float* row(const std::vector<float>& rows, u32 i);
// An index in memory that holds the rows, linked.
index_ptr filled_index(const std::vector<float>& rows);

std::vector<u32> ids_of(KorvexQuery* query);
float squared_distance(const float* a, const float* b);
// The ids of the k rows that are nearest by squared distance.
std::vector<u32> nearest(const std::vector<float>& rows, const float* v, std::size_t k);

// What the body makes the library write to standard output, without what this function adds.
std::string log_of(const std::function<void()>& body);
std::size_t count_of(const std::string& text, const std::string& part);

class temporary_directory {
 public:
  temporary_directory();
  ~temporary_directory();
  temporary_directory(const temporary_directory&) = delete;
  temporary_directory& operator=(const temporary_directory&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::string name() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

#endif  // KORVEX_TESTS_API_CONTRACT_LIBRARY_H
