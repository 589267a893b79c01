#include "api/utils_object.h"

#include "api/border.h"
#include "engine/startup.h"
#include "runtime/log.h"
#include "runtime/memory_report.h"
#include "runtime/platform/files.h"
#include "runtime/random.h"

namespace korvex {

void KorvexUtilsIml::printMemoryUsage(const char* label, int) {
  at_border("printMemoryUsage", [&] { print_memory_usage(log_fp(), label, take_memory_usage()); });
}

int KorvexUtilsIml::deleteFiles(const char* directory, int, const char* extension, int) {
  const int deleted =
      at_border("deleteFiles", -1, [&] { return platform::delete_files(directory, extension); });
  if (deleted < 0) log_refusal("deleteFiles", "no such directory, or no extension");
  return deleted;
}

unsigned KorvexUtilsIml::getRandom32() {
  return random_u32();
}

unsigned KorvexUtilsIml::getRandom32Max(unsigned max) {
  return random_u32_max(max);
}

unsigned long long KorvexUtilsIml::getRandom64() {
  return random_u64();
}

double KorvexUtilsIml::getRandom() {
  return random_double();
}

KorvexUtils* utils_instance() {
  static KorvexUtilsIml instance;
  static const bool started = (korvex_process_start(), true);
  static_cast<void>(started);
  return &instance;
}

}  // namespace korvex
