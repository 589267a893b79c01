#include "runtime/platform/processor.h"

#include <algorithm>

#include "runtime/platform/windows/system.h"

namespace korvex::platform {
namespace {

// The system keeps processors in groups of up to 64. Groups without an active processor have no place in the count.
bool affinity_of(int processor, GROUP_AFFINITY* affinity) {
  *affinity = {};
  if (processor < 0) return false;
  auto index = static_cast<DWORD>(processor);
  for (WORD group = 0; group < ::GetActiveProcessorGroupCount(); ++group) {
    const DWORD active = ::GetActiveProcessorCount(group);
    if (index < active) {
      affinity->Group = group;
      affinity->Mask = KAFFINITY{1} << index;
      return true;
    }
    index -= active;
  }
  return false;
}

GROUP_AFFINITY of_calling_thread() {
  GROUP_AFFINITY affinity{};
  ::GetThreadGroupAffinity(::GetCurrentThread(), &affinity);
  return affinity;
}

int apply(const GROUP_AFFINITY& affinity) {
  return ::SetThreadGroupAffinity(::GetCurrentThread(), &affinity, nullptr) ? 0 : fail();
}

// What the thread could be bound to when first asked: the way back from bind_thread.
const GROUP_AFFINITY& initial_processors() {
  static const GROUP_AFFINITY initial = of_calling_thread();
  return initial;
}

}  // namespace

int processor_count() {
  const DWORD count = ::GetActiveProcessorCount(ALL_PROCESSOR_GROUPS);
  return std::max(1, static_cast<int>(count));
}

core_type core_type_of(int processor) {
  const GROUP_AFFINITY before = of_calling_thread();
  if (before.Mask == 0 || bind_thread(processor) != 0) return core_type::unknown;
  const core_type type = core_type_here();
  apply(before);
  return type;
}

int bind_thread(int processor) {
  const GROUP_AFFINITY& initial = initial_processors();
  if (processor < 0) return apply(initial);
  GROUP_AFFINITY one;
  return affinity_of(processor, &one) ? apply(one) : fail_with(ERROR_INVALID_PARAMETER);
}

}  // namespace korvex::platform
