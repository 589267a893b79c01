#include "crash/posix/flush_record.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <vector>

#include "runtime/platform/faults.h"

namespace korvex::test {
namespace {

namespace fs = std::filesystem;

struct recorder {
  std::mutex mutex;
  fs::path directory, device;
};
recorder& state() {
  static auto* const only = new recorder;
  return *only;
}

// Only what is no hole: index files are long and mostly empty. What changes meanwhile may reach the device too.
void copy_file(int from, const fs::path& to) {
  struct stat status {};
  const int out = ::open(to.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (out < 0 || ::fstat(from, &status) != 0) return;
  if (::ftruncate(out, status.st_size) != 0) std::abort();
  std::vector<char> buffer(1 << 20);
  off_t end = 0;
  for (off_t at = ::lseek(from, 0, SEEK_DATA); at >= 0; at = ::lseek(from, end, SEEK_DATA)) {
    end = ::lseek(from, at, SEEK_HOLE);
    while (at < end) {
      const auto wanted = std::min<std::size_t>(buffer.size(), static_cast<std::size_t>(end - at));
      const ssize_t got = ::pread(from, buffer.data(), wanted, at);
      if (got <= 0 || ::pwrite(out, buffer.data(), static_cast<std::size_t>(got), at) != got) break;
      at += got;
    }
  }
  ::close(out);
}

// A name that was gone when its directory was flushed stays gone.
void record_names(const recorder& r) {
  std::vector<fs::path> marks;
  for (const auto& entry : fs::directory_iterator(r.device))
    if (entry.path().extension() == entry_mark) marks.push_back(entry.path());
  for (const fs::path& mark : marks) {
    if (fs::exists(r.directory / mark.stem())) continue;
    fs::remove(mark);
    fs::remove(r.device / mark.stem());
  }
  for (const auto& entry : fs::directory_iterator(r.directory))
    std::ofstream(r.device / (entry.path().filename().string() + entry_mark));
}

void record(int fd, const void*, std::uint64_t) {
  if (fd < 0) return;  // a flush of a view comes with one of its file
  recorder& r = state();
  const fs::path path = fs::read_symlink("/proc/self/fd/" + std::to_string(fd));
  const std::lock_guard guard(r.mutex);
  if (path == r.directory) {
    record_names(r);
  } else if (path.parent_path() == r.directory) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);  // has its own position
    if (file >= 0) copy_file(file, r.device / path.filename());
    ::close(file);
  }
}

}  // namespace

void record_flushes(const std::string& directory, const std::string& device) {
  state().directory = directory;
  state().device = device;
  fs::create_directories(device);
  platform::current_flush_hook = record;
}

}  // namespace korvex::test
