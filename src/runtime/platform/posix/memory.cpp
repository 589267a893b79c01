#include "runtime/platform/memory.h"

#include <linux/capability.h>
#include <linux/mempolicy.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <vector>

#include "runtime/platform/faults.h"
#include "runtime/platform/files.h"
#include "runtime/platform/posix/text_files.h"

namespace korvex::platform {
namespace {

constexpr std::uint64_t largest_size = std::numeric_limits<std::ptrdiff_t>::max();

// Mappings from this size on ask for large pages where the system lends them: random reads of a walk then find their
// translation in the processor. Smaller ones would take a whole large page for a few records.
constexpr std::uint64_t advised_bytes = std::uint64_t{64} << 20;

// Requires a power of two as the multiple; 0 when the result would not be addressable.
std::uint64_t round_up(std::uint64_t size, std::uint64_t multiple) {
  return size > largest_size - multiple ? 0 : (size + multiple - 1) & ~(multiple - 1);
}

void* map_pages(std::uint64_t size, int extra_flags) {
  void* data = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | extra_flags, -1, 0);
  return data == MAP_FAILED ? nullptr : data;
}

// The system aligns to pages only: maps more and gives back what lies outside. `size` is in whole
// pages.
void* map_aligned(std::uint64_t size, std::uint64_t align) {
  if (align <= page_size()) return map_pages(size, 0);
  if (size > largest_size - align) return nullptr;
  auto* mapped = static_cast<char*>(map_pages(size + align, 0));
  if (mapped == nullptr) return nullptr;
  const auto misfit = reinterpret_cast<std::uintptr_t>(mapped) & (align - 1);
  const std::uint64_t before = misfit == 0 ? 0 : align - misfit;
  if (before != 0) ::munmap(mapped, before);
  ::munmap(mapped + before + size, align - before);
  return mapped + before;
}

bool has_lock_capability() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
  return syscall(SYS_capget, &header, data) == 0 &&
         (data[CAP_TO_INDEX(CAP_IPC_LOCK)].effective & CAP_TO_MASK(CAP_IPC_LOCK)) != 0;
}

}  // namespace

std::uint64_t page_size() {
  static const auto bytes = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  return bytes;
}

std::uint64_t large_page_size() {
  static const std::uint64_t bytes =
      number_after(read_text_file("/proc/meminfo"), "Hugepagesize:").value_or(0) * 1024;
  return std::has_single_bit(bytes) ? bytes : 0;
}

bool large_pages_available() {
  if (large_page_size() == 0) return false;
  const std::string kind =
      "/sys/kernel/mm/hugepages/hugepages-" + std::to_string(large_page_size() / 1024) + "kB/";
  const auto free_pages = number_after(read_text_file(kind + "free_hugepages"), "");
  if (free_pages) return *free_pages != 0;
  return number_after(read_text_file("/proc/meminfo"), "HugePages_Free:").value_or(0) != 0;
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
  if (large != 0 && large >= align) data = map_pages(bytes, MAP_HUGETLB);
  if (data == nullptr) {
    const bool advised = large != 0 || bytes >= advised_bytes;
    data = map_aligned(bytes, std::max(align, advised ? large_page_size() : 0));
    if (data != nullptr && advised) ::madvise(data, bytes, MADV_HUGEPAGE);
  }
  if (data != nullptr) *mapped_bytes = bytes;
  return data;
}

void unmap_anonymous(void* data, std::uint64_t mapped_bytes) {
  if (data != nullptr) ::munmap(data, mapped_bytes);
}

void* map_file(int fd, std::uint64_t size, bool read_only, void** native, const char** failed_call,
               long* error) {
  *native = nullptr;
  *error = 0;
  struct stat status {};
  *failed_call = nullptr;
  const int known = ::fstat(fd, &status);
  if (known != 0 || !S_ISREG(status.st_mode)) {
    *error = known != 0 ? errno : EBADF;
    return nullptr;
  }
  *failed_call = "mmap";
  // A page behind the end of the file would be a fault at its first touch.
  if (size > static_cast<std::uint64_t>(status.st_size)) {
    *error = EINVAL;
    return nullptr;
  }
  if (fault_injected(fault_point::map_file)) {
    *error = ENOMEM;
    return nullptr;
  }
  void* data =
      ::mmap(nullptr, size, read_only ? PROT_READ : PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (data == MAP_FAILED) {
    *error = errno;
    return nullptr;
  }
  *failed_call = nullptr;
  // Lets the file system keep the file in large pieces where it can: fewer faults and fewer misses of the TLB.
  if (size >= advised_bytes) ::madvise(data, size, MADV_HUGEPAGE);
  return data;
}

void unmap_file(void* data, std::uint64_t size, void* /*native*/) {
  if (data != nullptr) ::munmap(data, size);
}

int flush_view(void* data, std::uint64_t size) {
  const std::uint64_t within_page = reinterpret_cast<std::uintptr_t>(data) & (page_size() - 1);
  if (::msync(static_cast<char*>(data) - within_page, size + within_page, MS_SYNC) != 0) return -1;
  report_flush(-1, data, size);
  return 0;
}

bool may_lock(std::uint64_t bytes) {
  if (fault_injected(fault_point::lock)) return false;
  if (has_lock_capability()) return true;
  rlimit limit{};
  if (getrlimit(RLIMIT_MEMLOCK, &limit) != 0) return false;
  if (limit.rlim_cur >= bytes) return true;
  if (limit.rlim_max < bytes) return false;
  limit.rlim_cur = limit.rlim_max;
  return setrlimit(RLIMIT_MEMLOCK, &limit) == 0;
}

int lock_pages(void* data, std::uint64_t size) {
  return fault_injected(fault_point::lock) ? -1 : ::mlock(data, size);
}

int unlock_pages(void* data, std::uint64_t size) {
  return ::munlock(data, size);
}

void* aligned_malloc(std::size_t size, std::size_t align) {
  if (size > largest_size || align > largest_size / 2 || fault_injected(fault_point::heap)) {
    errno = ENOMEM;
    return nullptr;
  }
  void* data = nullptr;
  const std::size_t boundary = std::bit_ceil(std::max(align, sizeof(void*)));
  const int failed = posix_memalign(&data, boundary, std::max<std::size_t>(size, 1));
  if (failed != 0) errno = failed;
  return failed == 0 ? data : nullptr;
}

void aligned_free(void* data) {
  std::free(data);
}

int numa_init() {
  int policy = 0;
  const bool answered = syscall(SYS_get_mempolicy, &policy, nullptr, 0, nullptr, 0) == 0;
  return answered && status_of("/sys/devices/system/node/node0").directory ? 0 : -1;
}

int numa_bind(void* data, std::uint64_t size, int node) {
  constexpr int most_nodes = 1024;
  if (node < 0 || node >= most_nodes) {
    errno = EINVAL;
    return -1;
  }
  unsigned long nodes[most_nodes / 64]{};
  nodes[node / 64] = 1UL << (node % 64);
  // One more than the mask has bits: the system takes one off.
  const long result = syscall(SYS_mbind, data, size, MPOL_PREFERRED, nodes,
                              static_cast<unsigned long>(most_nodes) + 1, MPOL_MF_MOVE);
  return result == 0 ? 0 : -1;
}

}  // namespace korvex::platform
