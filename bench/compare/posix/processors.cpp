#include "processors.h"

#include <sched.h>

namespace korvex::compare {

struct processors_of_process::state {
  cpu_set_t allowed;
  bool bound = false;
};

processors_of_process::processors_of_process(int wanted) : before_(std::make_unique<state>()) {
  const cpu_set_t& allowed = before_->allowed;
  if (sched_getaffinity(0, sizeof before_->allowed, &before_->allowed) != 0) return;
  cpu_set_t chosen;
  CPU_ZERO(&chosen);
  for (int i = 0; i < CPU_SETSIZE && CPU_COUNT(&chosen) < wanted; ++i)
    if (CPU_ISSET(i, &allowed)) CPU_SET(i, &chosen);
  before_->bound = sched_setaffinity(0, sizeof chosen, &chosen) == 0;
}

processors_of_process::~processors_of_process() {
  if (before_->bound) sched_setaffinity(0, sizeof before_->allowed, &before_->allowed);
}

}  // namespace korvex::compare
