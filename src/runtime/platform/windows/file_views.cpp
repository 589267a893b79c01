#include <io.h>

#include <cerrno>

#include "runtime/platform/faults.h"
#include "runtime/platform/memory.h"
#include "runtime/platform/windows/system.h"

namespace korvex::platform {
namespace {

// The system's error number when the file cannot be mapped that far. A larger mapping would make the file grow.
DWORD refusal(HANDLE file, std::uint64_t size) {
  LARGE_INTEGER length{};
  if (!::GetFileSizeEx(file, &length)) return ::GetLastError();
  if (size > static_cast<std::uint64_t>(length.QuadPart)) return ERROR_INVALID_PARAMETER;
  return fault_injected(fault_point::map_file) ? ERROR_NOT_ENOUGH_MEMORY : ERROR_SUCCESS;
}

}  // namespace

void* map_file(int fd, std::uint64_t size, bool read_only, void** native, const char** failed_call,
               long* error) {
  *native = nullptr;
  *error = 0;
  *failed_call = nullptr;
  const HANDLE file = handle_of(fd);
  if (file == INVALID_HANDLE_VALUE || ::GetFileType(file) != FILE_TYPE_DISK) {
    *error = ERROR_INVALID_HANDLE;
    return nullptr;
  }
  *failed_call = "CreateFileMapping";
  *error = static_cast<long>(refusal(file, size));
  if (*error != 0) return nullptr;
  unique_handle mapping(
      ::CreateFileMappingA(file, nullptr, read_only ? PAGE_READONLY : PAGE_READWRITE,
                           static_cast<DWORD>(size >> 32), static_cast<DWORD>(size), nullptr));
  if (!mapping) {
    *error = static_cast<long>(::GetLastError());
    return nullptr;
  }
  void* data = ::MapViewOfFile(
      mapping.get(), read_only ? FILE_MAP_READ : FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, size);
  if (data == nullptr) {
    *failed_call = "MapViewOfFile";
    *error = static_cast<long>(::GetLastError());
    return nullptr;
  }
  *failed_call = nullptr;
  *native = mapping.release();
  return data;
}

void unmap_file(void* data, std::uint64_t /*size*/, void* native) {
  if (data != nullptr) ::UnmapViewOfFile(data);
  if (native != nullptr) ::CloseHandle(native);
}

int flush_view(void* data, std::uint64_t size) {
  if (!::FlushViewOfFile(data, size)) return fail();
  report_flush(-1, data, size);
  return 0;
}

}  // namespace korvex::platform
