#include "crash/posix/power_cut.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "crash/posix/flush_record.h"

namespace korvex::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t page_bytes = 4096;
using page = std::array<char, page_bytes>;

class cut {
 public:
  cut(const fs::path& directory, const fs::path& device, double luck, std::mt19937* random)
      : directory_(directory), device_(device), lucky_(luck), random_(*random) {}

  void run() {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory_))
      names.insert(entry.path().filename().string());
    for (const auto& entry : fs::directory_iterator(device_))
      if (entry.path().extension() != entry_mark) names.insert(entry.path().filename().string());
    for (const std::string& name : names) cut_file(name);
    // The device holds now what is there. Not fs::copy, which fills holes.
    fs::remove_all(device_);
    if (std::system(("cp -r " + directory_.string() + " " + device_.string()).c_str()) != 0)
      std::abort();
    for (const auto& entry : fs::directory_iterator(directory_))
      std::ofstream(device_ / (entry.path().filename().string() + entry_mark));
  }

 private:
  void cut_file(const std::string& name) {
    const fs::path now = directory_ / name;
    const fs::path flushed = device_ / name;
    const bool was_named = fs::exists(device_ / (name + entry_mark));
    const bool is_named = fs::exists(now);
    if ((!was_named && !lucky_(random_)) || (!is_named && lucky_(random_))) {
      fs::remove(now);
      return;
    }
    if (!is_named) {
      if (fs::exists(flushed)) fs::rename(flushed, now);
      return;
    }
    mix(now, flushed);
  }

  // Pages that are equal on both sides are left alone, so that holes stay holes.
  void mix(const fs::path& now, const fs::path& flushed) {
    const auto length = fs::file_size(now);
    const auto old_length = fs::exists(flushed) ? fs::file_size(flushed) : 0;
    const int file = ::open(now.c_str(), O_RDWR | O_CLOEXEC);
    const int old = ::open(flushed.c_str(), O_RDONLY | O_CLOEXEC);
    page current, before;
    for (off_t at = ::lseek(file, 0, SEEK_DATA); at >= 0; at = ::lseek(file, at, SEEK_DATA)) {
      at -= at % static_cast<off_t>(page_bytes);
      const auto got = ::pread(file, current.data(), page_bytes, at);
      before.fill(0);
      if (old >= 0 && ::pread(old, before.data(), page_bytes, at) < 0) std::abort();
      const auto bytes = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
      if (std::memcmp(current.data(), before.data(), bytes) != 0 && !lucky_(random_) &&
          ::pwrite(file, before.data(), bytes, at) < 0)
        std::abort();
      at += static_cast<off_t>(page_bytes);
    }
    if (length != old_length && !lucky_(random_) &&
        ::ftruncate(file, static_cast<off_t>(old_length)) != 0)
      std::abort();
    ::close(file);
    ::close(old);
  }

  const fs::path directory_, device_;
  std::bernoulli_distribution lucky_;
  std::mt19937& random_;
};

}  // namespace

void cut_power(const std::string& directory, const std::string& device, double luck,
               std::mt19937* random) {
  cut(directory, device, luck, random).run();
}

}  // namespace korvex::test
