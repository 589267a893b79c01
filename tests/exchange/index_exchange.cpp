// Writes an index, or opens one that another build has written, perhaps on another system, and compares the answers.
// Usage: index_exchange write|read DIRECTORY
// "read" ends by destroying the index: nothing of it may be left.
#include <korvex/korvex.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

constexpr int dimension = 16;
constexpr int points = 3'000;
constexpr int queries = 100;
constexpr int k = 10;
constexpr unsigned deleted = 17;

// The same on every system, which a distribution of the standard library is not.
class coordinates {
 public:
  float next() {
    state_ = state_ * 6'364'136'223'846'793'005ull + 1'442'695'040'888'963'407ull;
    return static_cast<float>(state_ >> 40) / 1'000.0f - 8'000.0f;
  }
  std::vector<float> rows(int n) {
    std::vector<float> all(static_cast<std::size_t>(n) * dimension);
    for (float& each : all) each = next();
    return all;
  }

 private:
  unsigned long long state_ = 1;
};

Korvex* open_index(const std::string& directory) {
  return KorvexOnDiskInstance(dimension, directory.c_str(), "exchanged");
}

void fill(Korvex* index) {
  index->setAllocationUnits(1'000);
  index->setConstellationSize(12);
  coordinates source;
  const std::vector<float> rows = source.rows(points);
  index->addVectors(rows.data(), points, 0);
  index->waitForIndexReady();
  index->deleteVector(deleted, 0);
}

// One line a result: the bits of its distance, so that nothing is lost.
std::string answers(Korvex* index) {
  coordinates source;
  const std::vector<float> rows = source.rows(points + queries);
  KorvexQuery* query = index->createQuerySession(200, k);
  std::ostringstream text;
  for (int i = 0; i < queries; ++i) {
    // Every second one is a point of the index.
    const std::size_t row = i % 2 == 0 ? static_cast<std::size_t>(points + i) : i * 7u;
    query->query(&rows[row * dimension], 0, k);
    const korvex_results_s* found = query->getResults(0);
    for (unsigned at = 0; found != nullptr && at < found->count; ++at) {
      unsigned bits = 0;
      std::memcpy(&bits, &found->distances[at], sizeof bits);
      text << i << ' ' << found->ids[at] << ' ' << bits << '\n';
    }
  }
  query->destroy();
  return text.str();
}

int fail(const char* why) {
  std::fprintf(stderr, "index_exchange: %s\n", why);
  return 1;
}

std::string content_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

int write(const std::string& directory, const std::string& kept) {
  std::filesystem::remove_all(directory);
  std::filesystem::create_directories(directory);
  Korvex* index = open_index(directory);
  if (index == nullptr) return fail("no index could be made");
  fill(index);
  index->destroy();
  index = open_index(directory);
  if (index == nullptr) return fail("the index cannot be opened again");
  const std::string text = answers(index);
  index->destroy();
  std::ofstream(kept, std::ios::binary) << text;
  return text.empty() ? fail("no answers") : 0;
}

std::string first_file_in(const std::string& directory) {
  std::error_code gone;  // while we look
  auto entry = std::filesystem::recursive_directory_iterator(directory, gone);
  for (; entry != std::filesystem::recursive_directory_iterator(); entry.increment(gone))
    if (entry->is_regular_file(gone)) return entry->path().string();
  return {};
}

// The last thread that leaves an index takes its files along, on a busy machine a little after destroy() has returned.
std::string left_behind(const std::string& directory) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  std::string left = first_file_in(directory);
  while (!left.empty() && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    left = first_file_in(directory);
  }
  return left;
}

int read(const std::string& directory, const std::string& kept) {
  const std::string expected = content_of(kept);
  Korvex* index = open_index(directory);
  if (index == nullptr) return fail("the index cannot be opened");
  if (open_index(directory) != nullptr) return fail("the index was opened twice");
  const std::string text = answers(index);
  index->destroyIndexOnDelete(1);
  index->destroy();
  std::filesystem::remove(kept);
  const std::string left = left_behind(directory);
  if (!left.empty()) return fail(("left behind: " + left).c_str());
  if (expected.empty() || text != expected) return fail("the answers differ");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return fail("usage: index_exchange write|read DIRECTORY");
  const std::string directory = argv[2];
  const std::string kept = directory + "/answers.txt";
  return std::strcmp(argv[1], "write") == 0 ? write(directory, kept) : read(directory, kept);
}
