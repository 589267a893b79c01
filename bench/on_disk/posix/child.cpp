#include "child.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>

namespace korvex::on_disk {

namespace {

namespace fs = std::filesystem;

bool write_all(int fd, const void* data, std::size_t size) {
  const char* from = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = ::write(fd, from, size);
    if (written <= 0) return false;
    from += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

[[noreturn]] void run_child(int fd, const std::function<std::vector<double>()>& body) {
  int code = 1;
  try {
    const std::vector<double> numbers = body();
    code = write_all(fd, numbers.data(), numbers.size() * sizeof(double)) ? 0 : 1;
  } catch (const std::exception& error) {
    fmt::print(stderr, "{}\n", error.what());
  }
  std::fflush(nullptr);
  ::_exit(code);
}

template <class Body>
void for_each_file(const std::string& directory, Body body) {
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    const int fd = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    body(fd);
    ::close(fd);
  }
}

std::uint64_t resident_bytes(int fd, std::uint64_t size) {
  const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  if (size == 0) return 0;
  void* const data = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  if (data == MAP_FAILED) return 0;
  std::vector<unsigned char> pages((size + page - 1) / page);
  std::uint64_t count = 0;
  if (::mincore(data, size, pages.data()) == 0)
    for (const unsigned char each : pages) count += each & 1;
  ::munmap(data, size);
  return count * page;
}

}  // namespace

std::vector<double> in_child(const std::function<std::vector<double>()>& body) {
  int ends[2];
  std::fflush(nullptr);
  if (::pipe(ends) != 0) throw std::runtime_error("no pipe");
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("no process");
  if (child == 0) run_child(ends[1], body);
  ::close(ends[1]);
  std::vector<double> numbers;
  double buffer[512];
  std::FILE* const from = ::fdopen(ends[0], "rb");
  for (std::size_t n = 0; (n = std::fread(buffer, sizeof(double), std::size(buffer), from)) > 0;)
    numbers.insert(numbers.end(), buffer, buffer + n);
  std::fclose(from);
  int status = 0;
  if (::waitpid(child, &status, 0) != child || status != 0)
    throw std::runtime_error("a measuring process failed");
  return numbers;
}

file_pages look_at_pages(const std::string& directory) {
  file_pages all;
  for_each_file(directory, [&](int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return;
    const auto size = static_cast<std::uint64_t>(status.st_size);
    all.bytes += size;
    all.allocated_bytes += static_cast<std::uint64_t>(status.st_blocks) * 512;
    all.resident_bytes += resident_bytes(fd, size);
  });
  return all;
}

void drop_pages(const std::string& directory) {
  for_each_file(directory, [](int fd) {
    ::fsync(fd);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  });
}

}  // namespace korvex::on_disk
