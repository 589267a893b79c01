#include "runtime/platform/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <system_error>

#include "runtime/platform/faults.h"

namespace korvex::platform {
namespace {

constexpr mode_t owner_only = 0600;

// Repeats a call that a signal cut short.
template <typename Call>
auto uninterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

int flags_of(open_mode mode) {
  switch (mode) {
    case open_mode::existing:
      return O_RDWR;
    case open_mode::read_only:
      return O_RDONLY;
    case open_mode::create:
      return O_RDWR | O_CREAT;
    case open_mode::create_new:
      return O_RDWR | O_CREAT | O_EXCL;
    case open_mode::truncate:
      return O_RDWR | O_CREAT | O_TRUNC;
    case open_mode::append:
      return O_WRONLY | O_CREAT | O_APPEND;
  }
  return O_RDWR;
}

int open_with(const char* path, int flags) {
  if (path == nullptr || fault_injected(fault_point::open)) {
    errno = path == nullptr ? EINVAL : EMFILE;
    return -1;
  }
  return uninterrupted([&] { return ::open(path, flags | O_CLOEXEC, owner_only); });
}

// Growing a file over the process's limit is answered with a signal that ends the host: told as an
// error instead.
bool may_grow_to(int fd, std::uint64_t size) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return false;
  if (size <= static_cast<std::uint64_t>(status.st_size)) return true;
  rlimit limit{};
  const bool limited = getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY;
  if (size <= static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()) &&
      (!limited || size <= limit.rlim_cur))
    return true;
  errno = EFBIG;
  return false;
}

// Moves all of `size` bytes with `step`, which answers like read or write. What was moved before
// the end of the file, or -1.
template <typename Step>
std::int64_t move_all(std::uint64_t size, Step step) {
  if (size > static_cast<std::uint64_t>(std::numeric_limits<ssize_t>::max())) {
    errno = EINVAL;
    return -1;
  }
  std::uint64_t done = 0;
  while (done < size) {
    const ssize_t moved = uninterrupted([&] { return step(done, size - done); });
    if (moved < 0) return -1;
    if (moved == 0) break;
    done += static_cast<std::uint64_t>(moved);
  }
  return static_cast<std::int64_t>(done);
}

bool fits_offset(std::uint64_t offset, std::uint64_t size) {
  constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
  if (size <= largest && offset <= largest - size) return true;
  errno = EINVAL;
  return false;
}

}  // namespace

file_status status_of(const char* path) {
  struct stat status {};
  if (path == nullptr || ::stat(path, &status) != 0) return {};
  return {true, S_ISREG(status.st_mode), S_ISDIR(status.st_mode),
          static_cast<std::uint64_t>(status.st_size)};
}

std::uint64_t allocated_bytes(const char* path) {
  constexpr std::uint64_t unit = 512;  // of st_blocks, whatever the file system's own is
  struct stat status {};
  if (path == nullptr || ::stat(path, &status) != 0) return 0;
  return static_cast<std::uint64_t>(status.st_blocks) * unit;
}

int open_file(const char* path, open_mode mode) {
  return open_with(path, flags_of(mode));
}

int open_unbuffered(const char* path, bool read, bool write, bool create, bool exclusive,
                    bool truncate) {
  int flags = O_DIRECT;
  flags |= write ? (read ? O_RDWR : O_WRONLY) : O_RDONLY;
  if (create) flags |= O_CREAT;
  if (create && exclusive) flags |= O_EXCL;
  if (truncate) flags |= O_TRUNC;
  return open_with(path, flags);
}

std::FILE* stream_of_file(int fd) {
  return ::fdopen(fd, "w");
}

void close_file(int fd) {
  // Not repeated after a signal: the descriptor is gone by then and may be another thread's
  // already.
  if (fd >= 0) ::close(fd);
}

std::int64_t read_at(int fd, void* data, std::uint64_t size, std::uint64_t offset) {
  if (!fits_offset(offset, size)) return -1;
  return move_all(size, [&](std::uint64_t done, std::uint64_t left) {
    return ::pread(fd, static_cast<char*>(data) + done, left, static_cast<off_t>(offset + done));
  });
}

std::int64_t write_at(int fd, const void* data, std::uint64_t size, std::uint64_t offset) {
  if (!fits_offset(offset, size) || !may_grow_to(fd, offset + size)) return -1;
  return move_all(size, [&](std::uint64_t done, std::uint64_t left) {
    return ::pwrite(fd, static_cast<const char*>(data) + done, left,
                    static_cast<off_t>(offset + done));
  });
}

bool write_all(int fd, const void* data, std::uint64_t size) {
  const std::int64_t written = move_all(size, [&](std::uint64_t done, std::uint64_t left) {
    return ::write(fd, static_cast<const char*>(data) + done, left);
  });
  return written >= 0 && static_cast<std::uint64_t>(written) == size;
}

bool write_stream(std::FILE* stream, const void* data, std::uint64_t size) {
  flockfile(stream);
  const int fd = std::fflush(stream) == 0 ? fileno(stream) : -1;
  const bool done = fd >= 0
                        ? write_all(fd, data, size)
                        : std::fwrite(data, 1, size, stream) == size && std::fflush(stream) == 0;
  funlockfile(stream);
  return done;
}

void keep_line_ends() {}

bool is_terminal(std::FILE* stream) {
  return isatty(fileno(stream)) == 1;
}

int set_file_size(int fd, std::uint64_t size) {
  if (fault_injected(fault_point::resize)) {
    errno = ENOSPC;
    return -1;
  }
  if (!may_grow_to(fd, size)) return -1;
  return uninterrupted([&] { return ::ftruncate(fd, static_cast<off_t>(size)); });
}

int reserve_file_range(int fd, std::uint64_t offset, std::uint64_t size) {
  if (fault_injected(fault_point::reserve)) {
    errno = ENOSPC;
    return -1;
  }
  if (size == 0) return 0;
  if (!fits_offset(offset, size) || !may_grow_to(fd, offset + size)) return -1;
  const int result = uninterrupted([&] {
    return ::fallocate(fd, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                       static_cast<off_t>(size));
  });
  return result == 0 || errno == EOPNOTSUPP || errno == ENOSYS ? 0 : -1;
}

int sync_file(int fd) {
  if (fault_injected(fault_point::flush)) {
    errno = EIO;
    return -1;
  }
  if (uninterrupted([&] { return ::fsync(fd); }) != 0) return -1;
  report_flush(fd, nullptr, 0);
  return 0;
}

int sync_directory(const char* directory) {
  const int fd = open_file(directory, open_mode::read_only);
  if (fd < 0) return -1;
  const bool done = sync_file(fd) == 0 || errno == EINVAL || errno == EOPNOTSUPP;
  close_file(fd);
  return done ? 0 : -1;
}

int lock_file(int fd) {
  // Belongs to the open file, not to the process: a second open in the same process is kept out
  // too.
  if (uninterrupted([&] { return ::flock(fd, LOCK_EX | LOCK_NB); }) == 0) return 0;
  const bool no_locks_here = errno == EOPNOTSUPP || errno == ENOLCK || errno == ENOSYS;
  return no_locks_here ? 0 : -1;
}

void unlock_file(int fd) {
  ::flock(fd, LOCK_UN);
}

bool is_file_at(int fd, const char* path) {
  struct stat open {};
  struct stat named {};
  if (::fstat(fd, &open) != 0) return true;
  if (::stat(path, &named) != 0) return errno != ENOENT;
  return open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

int remove_file(const char* path) {
  return ::unlink(path);
}

int rename_file(const char* from, const char* to) {
  return ::rename(from, to);
}

std::string error_text(int error_number) {
  return std::generic_category().message(error_number);
}

}  // namespace korvex::platform
