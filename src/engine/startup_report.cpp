#include "engine/startup_report.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "engine/runtime.h"
#include "math/processor_features.h"
#include "runtime/log.h"
#include "runtime/platform/memory.h"
#include "runtime/platform/processor.h"
#include "runtime/strings.h"
#include "runtime/text_box.h"

#ifndef KORVEX_BUILD_DATE
#define KORVEX_BUILD_DATE __DATE__
#endif

namespace korvex {

namespace {

constexpr int box_columns = 80;
constexpr std::uint64_t megabyte = 1024 * 1024;

KORVEX_PRINTF(1, 2) std::string text(const char* format, ...) {
  char buffer[256];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  return buffer;
}

std::string cache_line(std::uint64_t bytes) {
  if (bytes == 0) return "Disk Index Cache: Disabled";
  return text("Disk Index Cache: %u MB", static_cast<unsigned>(bytes / megabyte));
}

}  // namespace

void print_startup_box(const hnsw_s* hnsw, std::uint64_t disk_cache_bytes) {
  const korvex_runtime_s& runtime = *hnsw->runtime;
  const std::string lines[] = {
      ":Korvex Beta Warning: New, Fast, but Still in Beta",
      ":Build Date: " KORVEX_BUILD_DATE,
      "This is a young product. Its interface is settled, its answers and its files are tested "
      "hard, but it has not "
      "yet seen as many machines and as much data as older libraries have.",
      "Please measure it on your own vectors before you rely on it: recall against an exact "
      "search, queries a second, "
      "build time and memory.",
      "What you find, good or bad, helps to improve it. We are glad about every report that says "
      "what was expected and "
      "what happened.",
      ":Current Configuration",
      text("Available RAM: %llu MB",
           static_cast<unsigned long long>(platform::available_memory() / megabyte)),
      text("CPU Cores: %d", platform::processor_count()),
      text("Optimizations: %s", get_cpu_architecture()),
      text("Allocation Units: %s", with_thousands(hnsw->allocation_units).c_str()),
      text("Pattern Probe Sequences: %u", runtime.probe_count),
      text("Constellation Size: %u", hnsw->neighbour_capacity / 2),
      text("Radius: %u", hnsw->radius),
      text("Index Type: %s", hnsw->on_disk != 0 ? "On-Disk Hybrid" : "In-Memory"),
      text("Sharding Enabled: %s", "No"),
      text("Huge Pages Support Enabled: %s", hnsw->huge_pages != 0 ? "Yes" : "No"),
      text("NUMA Node: %d", hnsw->numa_node),
      cache_line(disk_cache_bytes),
  };
  const std::vector<std::string_view> views(std::begin(lines), std::end(lines));
  print_text_box(log_fp(), views, box_columns);
}

void print_startup_memory(const hnsw_s* hnsw) {
  print_memory_usage_change(log_fp(), "after init:", hnsw->memory_usage, take_memory_usage());
}

}  // namespace korvex
