#include "api/log_sink.h"

#include <mutex>

#include "engine/startup.h"
#include "runtime/log.h"

namespace korvex {

namespace {

struct sink_s {
  std::mutex lock;  // held while the sink is called: on return of a change the old one is not
  korvex_log_fn function = nullptr;
  void* context = nullptr;
};

// Lines come until the process has ended.
sink_s& current() {
  static auto* const sink = new sink_s;
  return *sink;
}

void deliver(int, const char*, const char* line, const char*) {
  sink_s& sink = current();
  std::lock_guard lock(sink.lock);
  if (sink.function != nullptr) sink.function(sink.context, line);
}

// Lines that were queued before belong to where they went so far.
int redirect(int descriptor, korvex_log_fn function, void* context) {
  korvex_process_start();
  log_wait_empty();
  sink_s& sink = current();
  {
    std::lock_guard lock(sink.lock);
    sink.function = function;
    sink.context = context;
  }
  if (log_setfd(descriptor) == 0) return -1;
  return log_set_callback(function != nullptr ? deliver : nullptr);
}

}  // namespace

int set_log_sink(korvex_log_fn sink, void* context) {
  return redirect(0, sink, context);
}

int set_log_descriptor(int descriptor) {
  return descriptor < 0 ? -1 : redirect(descriptor, nullptr, nullptr);
}

}  // namespace korvex
