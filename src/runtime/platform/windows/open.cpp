#include <fcntl.h>
#include <io.h>

#include <cerrno>

#include "runtime/platform/direct_io.h"
#include "runtime/platform/faults.h"
#include "runtime/platform/files.h"
#include "runtime/platform/windows/system.h"

namespace korvex::platform {
namespace {

// Everybody may open, rename and remove what is open here, as on other systems; locks keep a second writer out.
constexpr DWORD share_all = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

struct open_request {
  DWORD access;
  DWORD disposition;
  DWORD attributes = FILE_ATTRIBUTE_NORMAL;
  int descriptor_flags = 0;
};

open_request request_of(open_mode mode) {
  constexpr DWORD read_write = GENERIC_READ | GENERIC_WRITE;
  switch (mode) {
    case open_mode::existing:
      return {read_write, OPEN_EXISTING};
    case open_mode::read_only:
      return {GENERIC_READ, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, _O_RDONLY};
    case open_mode::create:
      return {read_write, OPEN_ALWAYS};
    case open_mode::create_new:
      return {read_write, CREATE_NEW};
    case open_mode::truncate:
      return {read_write, CREATE_ALWAYS};
    case open_mode::append:
      // Without the right to write elsewhere the system itself appends, whoever else does.
      return {FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE, OPEN_ALWAYS,
              FILE_ATTRIBUTE_NORMAL, _O_APPEND};
  }
  return {read_write, OPEN_EXISTING};
}

int open_as(const char* path, const open_request& request) {
  const std::wstring wide = wide_path(path);
  if (wide.empty() || fault_injected(fault_point::open)) {
    errno = path == nullptr ? EINVAL : wide.empty() ? ENOENT : EMFILE;
    return -1;
  }
  unique_handle file = owned(::CreateFileW(wide.c_str(), request.access, share_all, nullptr,
                                           request.disposition, request.attributes, nullptr));
  if (!file) return fail();
  const int fd = ::_open_osfhandle(reinterpret_cast<std::intptr_t>(file.get()),
                                   _O_BINARY | _O_NOINHERIT | request.descriptor_flags);
  if (fd >= 0) file.release();
  return fd;
}

DWORD disposition_of(bool create, bool exclusive, bool truncate) {
  if (create && exclusive) return CREATE_NEW;
  if (create) return truncate ? CREATE_ALWAYS : OPEN_ALWAYS;
  return truncate ? TRUNCATE_EXISTING : OPEN_EXISTING;
}

}  // namespace

int open_file(const char* path, open_mode mode) {
  return open_as(path, request_of(mode));
}

int open_unbuffered(const char* path, bool read, bool write, bool create, bool exclusive,
                    bool truncate) {
  DWORD access = write ? GENERIC_WRITE : GENERIC_READ;
  if (read) access |= GENERIC_READ;
  return open_as(path, {access, disposition_of(create, exclusive, truncate),
                        FILE_ATTRIBUTE_NORMAL | FILE_FLAG_NO_BUFFERING});
}

int open_unbuffered_flags(const char* path, int flags) {
  const int access = flags & (_O_RDONLY | _O_WRONLY | _O_RDWR);
  return open_unbuffered(path, access != _O_WRONLY, access != _O_RDONLY, (flags & _O_CREAT) != 0,
                         (flags & _O_EXCL) != 0, (flags & _O_TRUNC) != 0);
}

std::FILE* stream_of_file(int fd) {
  return ::_fdopen(fd, "wb");
}

void close_file(int fd) {
  if (fd >= 0) ::_close(fd);
}

}  // namespace korvex::platform
