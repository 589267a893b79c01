#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "runtime/platform/memory.h"
#include "runtime/platform/posix/text_files.h"

namespace korvex::platform {
namespace {

constexpr std::uint64_t no_limit = std::numeric_limits<std::uint64_t>::max();

// How one generation of control groups names its files.
struct group_files {
  const char* root;
  std::string_view line;  // of /proc/self/cgroup: what stands before the path
  const char* limit;
  const char* usage;
  const char* reclaimable;  // in memory.stat
};
constexpr group_files generations[] = {
    {"/sys/fs/cgroup", "0::", "/memory.max", "/memory.current", "inactive_file "},
    {"/sys/fs/cgroup/memory", ":memory:", "/memory.limit_in_bytes", "/memory.usage_in_bytes",
     "total_inactive_file "},
};

std::string own_group(const group_files& files, std::string_view groups) {
  const std::size_t at = groups.find(files.line);
  if (at == std::string_view::npos) return {};
  const std::size_t start = at + files.line.size();
  return std::string(groups.substr(start, groups.find('\n', start) - start));
}

// What one group leaves. Cached file pages that are not in use count as free: a group that read
// many files would otherwise look full.
std::uint64_t left_in(const group_files& files, const std::string& group) {
  const std::string directory = files.root + group;
  const auto limit = number_after(read_text_file(directory + files.limit), "");
  const auto usage = number_after(read_text_file(directory + files.usage), "");
  if (!limit || !usage) return no_limit;
  const std::uint64_t reclaimable =
      number_after(read_text_file(directory + "/memory.stat"), files.reclaimable).value_or(0);
  const std::uint64_t taken = *usage - std::min(*usage, reclaimable);
  return *limit - std::min(*limit, taken);
}

// A group obeys the limits of all groups above it. Inside a container the path may be one of the
// outer system; its root then stands for the container.
std::uint64_t left_in_groups(const group_files& files, std::string_view groups) {
  std::string group = own_group(files, groups);
  std::uint64_t left = left_in(files, "");
  while (group.size() > 1) {
    left = std::min(left, left_in(files, group));
    group.resize(std::min(group.size(), group.rfind('/')));
  }
  return left;
}

}  // namespace

std::uint64_t available_memory() {
  std::uint64_t available =
      number_after(read_text_file("/proc/meminfo"), "MemAvailable:").value_or(0) * 1024;
  const std::string groups = read_text_file("/proc/self/cgroup");
  for (const group_files& files : generations)
    available = std::min(available, left_in_groups(files, groups));
  return available;
}

}  // namespace korvex::platform
