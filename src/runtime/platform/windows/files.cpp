#include "runtime/platform/files.h"

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>

#include "runtime/platform/faults.h"
#include "runtime/platform/windows/system.h"

namespace korvex::platform {
namespace {

constexpr std::uint64_t largest_offset = std::numeric_limits<std::int64_t>::max();
constexpr DWORD largest_step = 1u << 30;  // one call of the system takes 32 bits

// A byte far behind the end of any file: its lock keeps nobody from reading or writing.
constexpr std::uint64_t lock_offset = 1ULL << 62;

OVERLAPPED at_offset(std::uint64_t offset) {
  OVERLAPPED place{};
  place.Offset = static_cast<DWORD>(offset);
  place.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return place;
}

bool fits_offset(std::uint64_t offset, std::uint64_t size) {
  if (size <= largest_offset && offset <= largest_offset - size) return true;
  errno = EINVAL;
  return false;
}

// Moves all of `size` bytes with step(done, bytes, *moved), which answers like ReadFile or WriteFile. What was moved
// before the end of the file, or -1.
template <typename Step>
std::int64_t move_all(std::uint64_t size, Step step) {
  std::uint64_t done = 0;
  while (done < size) {
    DWORD moved = 0;
    const auto bytes = static_cast<DWORD>(std::min<std::uint64_t>(size - done, largest_step));
    if (!step(done, bytes, &moved)) {
      const DWORD error = ::GetLastError();
      if (error == ERROR_HANDLE_EOF) break;
      return fail_with(error);
    }
    if (moved == 0) break;
    done += moved;
  }
  return static_cast<std::int64_t>(done);
}

// In nobody's way. Null, with GetLastError(), when it is not there.
unique_handle open_for_facts(const char* path) {
  constexpr DWORD share_all = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  return owned(::CreateFileW(wide_path(path).c_str(), FILE_READ_ATTRIBUTES, share_all, nullptr,
                             OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

bool is_device(const wchar_t* path) {
  wchar_t full[16];
  const DWORD size = ::GetFullPathNameW(path, 16, full, nullptr);
  return size > 4 && size < 16 && std::wstring_view(full, 4) == L"\\\\.\\";
}

}  // namespace

file_status status_of(const char* path) {
  const std::wstring wide = wide_path(path);
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (wide.empty() || !::GetFileAttributesExW(wide.c_str(), GetFileExInfoStandard, &data))
    return {};
  const bool directory = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  const bool regular = !directory && !is_device(wide.c_str());
  return {true, regular, directory, std::uint64_t{data.nFileSizeHigh} << 32 | data.nFileSizeLow};
}

std::uint64_t allocated_bytes(const char* path) {
  const unique_handle file = open_for_facts(path);
  if (!file) return 0;
  FILE_STANDARD_INFO info{};
  if (!::GetFileInformationByHandleEx(file.get(), FileStandardInfo, &info, sizeof info)) return 0;
  return static_cast<std::uint64_t>(info.AllocationSize.QuadPart);
}

std::int64_t read_at(int fd, void* data, std::uint64_t size, std::uint64_t offset) {
  const HANDLE file = handle_of(fd);
  if (file == INVALID_HANDLE_VALUE || !fits_offset(offset, size)) return -1;
  return move_all(size, [&](std::uint64_t done, DWORD bytes, DWORD* moved) {
    OVERLAPPED place = at_offset(offset + done);
    return ::ReadFile(file, static_cast<char*>(data) + done, bytes, moved, &place);
  });
}

std::int64_t write_at(int fd, const void* data, std::uint64_t size, std::uint64_t offset) {
  const HANDLE file = handle_of(fd);
  if (file == INVALID_HANDLE_VALUE || !fits_offset(offset, size)) return -1;
  return move_all(size, [&](std::uint64_t done, DWORD bytes, DWORD* moved) {
    OVERLAPPED place = at_offset(offset + done);
    return ::WriteFile(file, static_cast<const char*>(data) + done, bytes, moved, &place);
  });
}

// Past the C runtime: it would put a carriage return before each line's end on some descriptors, and a thread that was
// killed in it, as all others are when a process ends, keeps its lock for ever.
bool write_all(int fd, const void* data, std::uint64_t size) {
  const HANDLE file = handle_of(fd);
  if (file == INVALID_HANDLE_VALUE) return false;
  const std::int64_t written = move_all(size, [&](std::uint64_t done, DWORD bytes, DWORD* moved) {
    return ::WriteFile(file, static_cast<const char*>(data) + done, bytes, moved, nullptr);
  });
  return written >= 0 && static_cast<std::uint64_t>(written) == size;
}

bool write_stream(std::FILE* stream, const void* data, std::uint64_t size) {
  ::_lock_file(stream);
  const bool done = std::fflush(stream) == 0 && write_all(::_fileno(stream), data, size);
  ::_unlock_file(stream);
  return done;
}

void keep_line_ends() {
  for (std::FILE* const stream : {stdin, stdout, stderr}) ::_setmode(::_fileno(stream), _O_BINARY);
}

bool is_terminal(std::FILE* stream) {
  DWORD mode = 0;
  return ::GetConsoleMode(handle_of(::_fileno(stream)), &mode) != 0;
}

int set_file_size(int fd, std::uint64_t size) {
  if (fault_injected(fault_point::resize)) {
    errno = ENOSPC;
    return -1;
  }
  const HANDLE file = handle_of(fd);
  if (file == INVALID_HANDLE_VALUE) return -1;
  if (size > largest_offset) {
    errno = EFBIG;
    return -1;
  }
  FILE_END_OF_FILE_INFO end{};
  end.EndOfFile.QuadPart = static_cast<std::int64_t>(size);
  return ::SetFileInformationByHandle(file, FileEndOfFileInfo, &end, sizeof end) ? 0 : fail();
}

// The system gives a file its room when its end is set, unless the file was made sparse or compressed.
int reserve_file_range(int fd, std::uint64_t offset, std::uint64_t size) {
  if (fault_injected(fault_point::reserve)) {
    errno = ENOSPC;
    return -1;
  }
  return handle_of(fd) != INVALID_HANDLE_VALUE && fits_offset(offset, size) ? 0 : -1;
}

int sync_file(int fd) {
  if (fault_injected(fault_point::flush)) {
    errno = EIO;
    return -1;
  }
  const HANDLE file = handle_of(fd);
  if (file == INVALID_HANDLE_VALUE) return -1;
  if (!::FlushFileBuffers(file)) return fail();
  report_flush(fd, nullptr, 0);
  return 0;
}

// The file system's own log keeps names.
int sync_directory(const char* /*directory*/) {
  return 0;
}

int lock_file(int fd) {
  const HANDLE file = handle_of(fd);
  if (file == INVALID_HANDLE_VALUE) return -1;
  OVERLAPPED place = at_offset(lock_offset);
  if (::LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &place))
    return 0;
  const DWORD error = ::GetLastError();
  const bool no_locks_here = error == ERROR_NOT_SUPPORTED || error == ERROR_INVALID_FUNCTION;
  return no_locks_here ? 0 : fail_with(error);
}

void unlock_file(int fd) {
  OVERLAPPED place = at_offset(lock_offset);
  ::UnlockFileEx(handle_of(fd), 0, 1, 0, &place);
}

bool is_file_at(int fd, const char* path) {
  BY_HANDLE_FILE_INFORMATION open{};
  BY_HANDLE_FILE_INFORMATION named{};
  if (!::GetFileInformationByHandle(handle_of(fd), &open)) return true;
  const unique_handle file = open_for_facts(path);
  // A file that is removed while somebody has it open keeps its name until then, for nobody.
  if (!file && ::GetLastError() == ERROR_ACCESS_DENIED) return false;
  if (!file) return ::GetLastError() != ERROR_FILE_NOT_FOUND;
  if (!::GetFileInformationByHandle(file.get(), &named)) return true;
  return open.dwVolumeSerialNumber == named.dwVolumeSerialNumber &&
         open.nFileIndexHigh == named.nFileIndexHigh && open.nFileIndexLow == named.nFileIndexLow;
}

int remove_file(const char* path) {
  return ::DeleteFileW(wide_path(path).c_str()) ? 0 : fail();
}

int rename_file(const char* from, const char* to) {
  const DWORD replace = MOVEFILE_REPLACE_EXISTING;
  return ::MoveFileExW(wide_path(from).c_str(), wide_path(to).c_str(), replace) ? 0 : fail();
}

std::string error_text(int error_number) {
  return std::generic_category().message(error_number);
}

}  // namespace korvex::platform
