#include "runtime/platform/memory.h"

#include <malloc.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <limits>
#include <mutex>

#include "runtime/platform/faults.h"
#include "runtime/platform/windows/system.h"

namespace korvex::platform {
namespace {

constexpr std::uint64_t largest_size = std::numeric_limits<std::ptrdiff_t>::max();
// How often a place that was free a moment ago may be taken by another thread.
constexpr int placing_attempts = 16;

const SYSTEM_INFO& system_info() {
  static const SYSTEM_INFO info = [] {
    SYSTEM_INFO read{};
    ::GetSystemInfo(&read);
    return read;
  }();
  return info;
}

// Requires a power of two as the multiple; 0 when the result would not be addressable.
std::uint64_t round_up(std::uint64_t size, std::uint64_t multiple) {
  return size > largest_size - multiple ? 0 : (size + multiple - 1) & ~(multiple - 1);
}

void* commit(void* at, std::uint64_t size, DWORD extra_flags) {
  return ::VirtualAlloc(at, size, MEM_RESERVE | MEM_COMMIT | extra_flags, PAGE_READWRITE);
}

// The system aligns to 64 KiB. A reservation cannot be trimmed: a larger one shows where there is room, is given back,
// and the right part of it is asked for again.
void* commit_aligned(std::uint64_t size, std::uint64_t align) {
  if (align <= system_info().dwAllocationGranularity) return commit(nullptr, size, 0);
  if (size > largest_size - align) return nullptr;
  for (int i = 0; i < placing_attempts; ++i) {
    void* room = ::VirtualAlloc(nullptr, size + align, MEM_RESERVE, PAGE_NOACCESS);
    if (room == nullptr) return nullptr;
    const std::uint64_t aligned = round_up(reinterpret_cast<std::uintptr_t>(room), align);
    ::VirtualFree(room, 0, MEM_RELEASE);
    if (void* data = commit(reinterpret_cast<void*>(aligned), size, 0)) return data;
  }
  return nullptr;
}

// Tries to take the privilege each time: an administrator may grant it to a service while it runs.
bool holds_lock_privilege() {
  HANDLE opened = nullptr;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &opened))
    return false;
  const unique_handle token(opened);
  TOKEN_PRIVILEGES wanted{};
  wanted.PrivilegeCount = 1;
  wanted.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
  if (!::LookupPrivilegeValueW(nullptr, L"SeLockMemoryPrivilege", &wanted.Privileges[0].Luid))
    return false;
  // Counts as a success also when nothing was assigned; only the error number tells.
  return ::AdjustTokenPrivileges(token.get(), FALSE, &wanted, 0, nullptr, nullptr) &&
         ::GetLastError() != ERROR_NOT_ALL_ASSIGNED;
}

// The system lets a process lock no more than its smallest working set, less what it needs itself: both limits move
// with what is locked.
void move_working_set(std::int64_t bytes) {
  static std::mutex one_at_a_time;
  static std::int64_t raised = 0;
  const std::lock_guard<std::mutex> guard(one_at_a_time);
  if (raised + bytes < 0) return;  // the system refused when they should have risen
  const HANDLE process = ::GetCurrentProcess();
  SIZE_T least = 0;
  SIZE_T most = 0;
  const auto change = static_cast<SIZE_T>(bytes);
  if (::GetProcessWorkingSetSize(process, &least, &most) &&
      ::SetProcessWorkingSetSize(process, least + change, most + change))
    raised += bytes;
}

}  // namespace

std::uint64_t page_size() {
  return system_info().dwPageSize;
}

std::uint64_t large_page_size() {
  return ::GetLargePageMinimum();
}

bool large_pages_available() {
  return holds_lock_privilege() && large_page_size() != 0;
}

std::uint64_t available_memory() {
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof status;
  return ::GlobalMemoryStatusEx(&status) ? status.ullAvailPhys : 0;
}

void* map_anonymous(std::uint64_t size, std::uint64_t align, bool large_pages,
                    std::uint64_t* mapped_bytes) {
  *mapped_bytes = 0;
  if (size == 0 || size > largest_size || align > largest_size / 2 ||
      fault_injected(fault_point::map_anonymous)) {
    errno = ENOMEM;
    return nullptr;
  }
  align = std::bit_ceil(std::max(align, page_size()));
  const std::uint64_t large = large_pages ? large_page_size() : 0;
  const std::uint64_t bytes = round_up(size, large != 0 ? large : page_size());
  if (bytes == 0) return nullptr;

  void* data = nullptr;
  if (large != 0 && large >= align && holds_lock_privilege())
    data = commit(nullptr, bytes, MEM_LARGE_PAGES);
  if (data == nullptr) data = commit_aligned(bytes, align);
  if (data != nullptr) *mapped_bytes = bytes;
  return data;
}

void unmap_anonymous(void* data, std::uint64_t /*mapped_bytes*/) {
  if (data != nullptr) ::VirtualFree(data, 0, MEM_RELEASE);
}

bool may_lock(std::uint64_t /*bytes*/) {
  return !fault_injected(fault_point::lock) && holds_lock_privilege();
}

int lock_pages(void* data, std::uint64_t size) {
  if (fault_injected(fault_point::lock)) return -1;
  move_working_set(static_cast<std::int64_t>(size));
  if (::VirtualLock(data, size)) return 0;
  const DWORD error = ::GetLastError();
  move_working_set(-static_cast<std::int64_t>(size));
  return fail_with(error);
}

int unlock_pages(void* data, std::uint64_t size) {
  if (!::VirtualUnlock(data, size)) return fail();
  move_working_set(-static_cast<std::int64_t>(size));
  return 0;
}

void* aligned_malloc(std::size_t size, std::size_t align) {
  if (size > largest_size || align > largest_size / 2 || fault_injected(fault_point::heap)) {
    errno = ENOMEM;
    return nullptr;
  }
  const std::size_t boundary = std::bit_ceil(std::max(align, sizeof(void*)));
  return ::_aligned_malloc(std::max<std::size_t>(size, 1), boundary);
}

void aligned_free(void* data) {
  ::_aligned_free(data);
}

// The system places memory by itself.
int numa_init() {
  return -1;
}

int numa_bind(void*, std::uint64_t, int) {
  errno = ENOSYS;
  return -1;
}

}  // namespace korvex::platform
