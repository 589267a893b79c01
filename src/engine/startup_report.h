#ifndef KORVEX_ENGINE_STARTUP_REPORT_H
#define KORVEX_ENGINE_STARTUP_REPORT_H

#include <cstdint>

#include "engine/record.h"

namespace korvex {

// The box that tells the configuration, and the change of the process's memory since the index was
// created; both go to the log's first output.
void print_startup_box(const hnsw_s* hnsw, std::uint64_t disk_cache_bytes);
void print_startup_memory(const hnsw_s* hnsw);

}  // namespace korvex

#endif  // KORVEX_ENGINE_STARTUP_REPORT_H
