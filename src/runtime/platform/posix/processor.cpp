#include "runtime/platform/processor.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace korvex::platform {
namespace {

// A processor mask of any size: a fixed cpu_set_t ends at 1,024 processors and the system refuses a
// short one.
class processor_set {
 public:
  explicit processor_set(std::size_t processors) : bits_(words(processors)) {}

  static processor_set of_calling_thread() {
    for (std::size_t processors = 1024; processors <= 1u << 18; processors *= 2) {
      processor_set allowed(processors);
      if (sched_getaffinity(0, allowed.bytes(), allowed.data()) == 0) return allowed;
      if (errno != EINVAL) break;
    }
    return processor_set(0);
  }

  void add(std::size_t processor) { bits_[processor / 64] |= 1ULL << (processor % 64); }
  bool empty() const {
    return std::all_of(bits_.begin(), bits_.end(), [](std::uint64_t w) { return w == 0; });
  }
  int apply() { return sched_setaffinity(0, bytes(), data()); }

 private:
  static std::size_t words(std::size_t processors) { return (processors + 63) / 64; }
  std::size_t bytes() const { return bits_.size() * sizeof(std::uint64_t); }
  cpu_set_t* data() { return reinterpret_cast<cpu_set_t*>(bits_.data()); }

  std::vector<std::uint64_t> bits_;
};

// Whether a list such as "0-7,16,18-19" names the processor; -1 when there is no such file.
int listed_in(const char* path, int processor) {
  std::FILE* file = std::fopen(path, "re");
  if (file == nullptr) return -1;
  int found = 0;
  int first = 0;
  while (found == 0 && std::fscanf(file, "%d", &first) == 1) {
    int last = first;
    int separator = std::fgetc(file);
    if (separator == '-') {
      if (std::fscanf(file, "%d", &last) != 1) break;
      separator = std::fgetc(file);
    }
    if (processor >= first && processor <= last) found = 1;
    if (separator != ',') break;
  }
  std::fclose(file);
  return found;
}

// Every processor that the thread could be bound to when first asked: the way back from
// bind_thread.
const processor_set& initial_processors() {
  static const processor_set initial = processor_set::of_calling_thread();
  return initial;
}

}  // namespace

int processor_count() {
  const long count = sysconf(_SC_NPROCESSORS_ONLN);
  return count < 1 ? 1 : static_cast<int>(count);
}

core_type core_type_of(int processor) {
  const int performance = listed_in("/sys/devices/cpu_core/cpus", processor);
  const int efficiency = listed_in("/sys/devices/cpu_atom/cpus", processor);
  if (performance == 1) return core_type::performance;
  if (efficiency == 1) return core_type::efficiency;
  if (performance == 0 || efficiency == 0 || processor < 0) return core_type::unknown;

  processor_set before = processor_set::of_calling_thread();
  if (before.empty() || bind_thread(processor) != 0) return core_type::unknown;
  const core_type type = core_type_here();
  before.apply();
  return type;
}

int bind_thread(int processor) {
  initial_processors();
  if (processor < 0) {
    processor_set all = initial_processors();
    return all.empty() ? -1 : all.apply();
  }
  processor_set one(static_cast<std::size_t>(processor) + 1);
  one.add(static_cast<std::size_t>(processor));
  return one.apply();
}

}  // namespace korvex::platform
