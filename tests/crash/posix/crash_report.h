#ifndef KORVEX_TESTS_CRASH_CRASH_REPORT_H
#define KORVEX_TESTS_CRASH_CRASH_REPORT_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

// What a program that may be killed at any moment tells the test that kills it: words in a file that both have mapped.
namespace korvex::test {

enum class phase : std::uint32_t {
  none,
  opening,
  starting,
  adding,
  syncing,
  linking,
  compacting,
  closing,
  done,
  count
};

inline const char* name_of(phase p) {
  constexpr const char* names[] = {"none",    "opening",    "starting", "adding", "syncing",
                                   "linking", "compacting", "closing",  "done"};
  return names[static_cast<std::uint32_t>(p)];
}

inline constexpr std::uint32_t most_rows = 20'000;
inline constexpr int row_dimension = 24;

struct crash_report {
  std::atomic<phase> at;
  std::atomic<std::uint32_t> rounds;  // how often a phase began
  // By row: its public id + 1 once the addition returned, and whether a sync that began after that returned too.
  std::atomic<std::uint32_t> id[most_rows];
  std::atomic<std::uint8_t> synced[most_rows];
  // Of a check: what was asked for and what was found.
  std::atomic<std::uint32_t> asked, found, kept, lost_row;
};

class shared_report {
 public:
  explicit shared_report(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::ftruncate(fd, sizeof(crash_report)) != 0) std::abort();
    void* const data =
        ::mmap(nullptr, sizeof(crash_report), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (data == MAP_FAILED) std::abort();
    report_ = static_cast<crash_report*>(data);
  }
  ~shared_report() { ::munmap(report_, sizeof(crash_report)); }
  shared_report(const shared_report&) = delete;
  shared_report& operator=(const shared_report&) = delete;

  crash_report* operator->() const { return report_; }
  void enter(phase next) const {
    report_->at.store(next);
    report_->rounds.fetch_add(1);
  }

 private:
  crash_report* report_ = nullptr;
};

// Row by row the same in every process; rows differ, and gather around a few centres.
inline std::array<float, row_dimension> row_vector(std::uint32_t row) {
  std::array<float, row_dimension> vector{};
  std::mt19937 centre(row % 17);
  std::mt19937 generator(row + 1000);
  std::normal_distribution<float> normal;
  for (float& value : vector) value = 3.0f * normal(centre);
  for (float& value : vector) value += normal(generator);
  return vector;
}

}  // namespace korvex::test

#endif  // KORVEX_TESTS_CRASH_CRASH_REPORT_H
