#ifndef KORVEX_API_LOG_SINK_H
#define KORVEX_API_LOG_SINK_H

#include "korvex/engine.h"

namespace korvex {

// Where the lines of the process go instead of standard output.
// Threads   any but the sink's own
// Failure   -1 without a log, or for a negative descriptor
int set_log_sink(korvex_log_fn sink, void* context);
int set_log_descriptor(int descriptor);

}  // namespace korvex

#endif  // KORVEX_API_LOG_SINK_H
