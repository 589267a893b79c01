#ifndef KORVEX_RUNTIME_MEMORY_REPORT_H
#define KORVEX_RUNTIME_MEMORY_REPORT_H

#include <cstdint>
#include <cstdio>

namespace korvex {

// A snapshot of the process's memory use, in bytes. Part of the index record: the size and the
// order are fixed. v[0] resident, v[1] peak resident, v[2] virtual, v[3] peak virtual, v[4..7]
// zero.
struct memory_usage_s {
  std::uint64_t v[8];
};
static_assert(sizeof(memory_usage_s) == 64, "stored in the index record");

memory_usage_s take_memory_usage();

// Prints the label and the four sizes in MB, in one write. Null label: no heading. Null file:
// nothing.
void print_memory_usage(std::FILE* file, const char* label, const memory_usage_s& usage);

// The same with the signed difference of `after` against `before` beside each size.
void print_memory_usage_change(std::FILE* file, const char* label, const memory_usage_s& before,
                               const memory_usage_s& after);

}  // namespace korvex

#endif  // KORVEX_RUNTIME_MEMORY_REPORT_H
