#include "runtime/memory_report.h"

#include <string>

#include "runtime/platform/files.h"
#include "runtime/platform/process.h"

namespace korvex {
namespace {

constexpr double bytes_per_mb = 1024.0 * 1024.0;
constexpr const char* size_names[] = {"resident", "peak resident", "virtual", "peak virtual"};

// Null `before`: no differences.
void print_sizes(std::FILE* file, const char* label, const memory_usage_s* before,
                 const memory_usage_s& after) {
  if (file == nullptr) return;
  std::string report = label == nullptr ? "" : std::string(label) + "\n";
  for (int i = 0; i < 4; ++i) {
    char line[128];
    const double now = static_cast<double>(after.v[i]) / bytes_per_mb;
    int n = std::snprintf(line, sizeof line, "  %-13s %10.1f MB", size_names[i], now);
    report.append(line, static_cast<std::size_t>(n));
    if (before != nullptr) {
      const double change = now - static_cast<double>(before->v[i]) / bytes_per_mb;
      n = std::snprintf(line, sizeof line, " (%+.1f MB)", change);
      report.append(line, static_cast<std::size_t>(n));
    }
    report += '\n';
  }
  platform::write_stream(file, report.data(), report.size());
}

}  // namespace

memory_usage_s take_memory_usage() {
  const platform::memory_usage usage = platform::process_memory();
  return {{usage.resident_bytes, usage.peak_resident_bytes, usage.virtual_bytes,
           usage.peak_virtual_bytes, 0, 0, 0, 0}};
}

void print_memory_usage(std::FILE* file, const char* label, const memory_usage_s& usage) {
  print_sizes(file, label, nullptr, usage);
}

void print_memory_usage_change(std::FILE* file, const char* label, const memory_usage_s& before,
                               const memory_usage_s& after) {
  print_sizes(file, label, &before, after);
}

}  // namespace korvex
