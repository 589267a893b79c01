#ifndef KORVEX_BENCH_COMPARE_PROCESSORS_H
#define KORVEX_BENCH_COMPARE_PROCESSORS_H

#include <memory>

namespace korvex::compare {

// Leaves the calling thread and those that it starts as many processors as they are to have threads: a library whose
// calling thread works beside them gets no more than the others. Ends with the object; without effect where the system
// refuses.
class processors_of_process {
 public:
  explicit processors_of_process(int wanted);
  ~processors_of_process();
  processors_of_process(const processors_of_process&) = delete;
  processors_of_process& operator=(const processors_of_process&) = delete;

 private:
  struct state;
  const std::unique_ptr<state> before_;
};

}  // namespace korvex::compare

#endif  // KORVEX_BENCH_COMPARE_PROCESSORS_H
