#include "library.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>

#include "host_system.h"

library::library() {
  testing::internal::CaptureStdout();
  handle = host_system::load_library(KORVEX_LIBRARY_PATH);
  const std::string error = handle == nullptr ? host_system::load_error() : "";
  greeting = testing::internal::GetCapturedStdout();
  if (handle == nullptr) throw std::runtime_error(error);
  version = function<int()>("KorvexInterfaceVersion");
  instance = function<Korvex*(int)>("KorvexInstance");
  create = function<Korvex*(int)>("createKorvexInstance");
  on_disk = function<Korvex*(int, const char*, const char*)>("KorvexOnDiskInstance");
  create_on_disk = function<Korvex*(int, const char*, const char*)>("createKorvexOnDiskInstance");
  utils = function<KorvexUtils*()>("KorvexUtilsInstance");
  create_utils = function<KorvexUtils*()>("createKorvexUtilsInstance");
  info = function<int()>("korvex_info");
}

void* library::find(const char* name) const {
  void* const found = host_system::find_function(handle, name);
  if (found == nullptr) throw std::runtime_error(std::string("no function ") + name);
  return found;
}

const library& lib() {
  static const library only;
  return only;
}

std::vector<float> random_vectors(int n, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> component(-1000, 1000);
  std::vector<float> rows(static_cast<std::size_t>(n) * dimension);
  for (float& value : rows) value = component(random);
  return rows;
}

const float* row(const std::vector<float>& rows, u32 i) {
  return rows.data() + std::size_t{i} * dimension;
}

index_ptr filled_index(const std::vector<float>& rows) {
  index_ptr index(lib().instance(dimension));
  index->addVectors(rows.data(), static_cast<int>(rows.size() / dimension), 0);
  index->waitForIndexReady();
  return index;
}

std::vector<u32> ids_of(KorvexQuery* query) {
  const results_t* const results = query->getResults(0);
  return {results->ids, results->ids + results->count};
}

float squared_distance(const float* a, const float* b) {
  float sum = 0;
  for (int d = 0; d < dimension; ++d) sum += (a[d] - b[d]) * (a[d] - b[d]);
  return sum;
}

std::vector<u32> nearest(const std::vector<float>& rows, const float* v, std::size_t k) {
  std::vector<std::pair<float, u32>> order;
  for (u32 i = 0; i < rows.size() / dimension; ++i)
    order.emplace_back(squared_distance(row(rows, i), v), i);
  std::sort(order.begin(), order.end());
  std::vector<u32> ids;
  for (std::size_t i = 0; i < k; ++i) ids.push_back(order[i].second);
  return ids;
}

// Printing a batch, an unused one here, waits until the log has written what came before. It adds
// one line.
std::string log_of(const std::function<void()>& body) {
  static Korvex* const index = lib().instance(1);
  static KorvexBulkQuery* const drain = index->createBulkQuerySession(1);
  drain->printResults();
  testing::internal::CaptureStdout();
  body();
  drain->printResults();
  std::string text = testing::internal::GetCapturedStdout();
  const std::size_t own = text.rfind("result k=0 count 0\n");
  if (own == std::string::npos) return text;
  const std::size_t end_before = text.rfind('\n', own);
  text.erase(end_before == std::string::npos ? 0 : end_before + 1);
  return text;
}

std::size_t count_of(const std::string& text, const std::string& part) {
  std::size_t n = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

temporary_directory::temporary_directory() {
  std::random_device random;
  path_ = std::filesystem::temp_directory_path() /
          ("korvex-contract-" + std::to_string(random()) + "-" + std::to_string(random()));
  std::filesystem::create_directories(path_);
}

temporary_directory::~temporary_directory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}
