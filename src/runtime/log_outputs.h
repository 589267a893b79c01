#ifndef KORVEX_RUNTIME_LOG_OUTPUTS_H
#define KORVEX_RUNTIME_LOG_OUTPUTS_H

#include <cstddef>
#include <cstdint>

#include "runtime/log.h"

namespace korvex {

// Where lines go: a callback, the first output (standard output at first) and a file opened by
// path. They outlive log_shutdown: a logger that is started again writes to the same places.
void write_log_line(std::uint32_t level, const char* tag, const char* message, std::size_t length);
void set_log_output(int fd);
void set_log_output_callback(log_callback callback);

}  // namespace korvex

#endif  // KORVEX_RUNTIME_LOG_OUTPUTS_H
