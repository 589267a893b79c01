#ifndef KORVEX_TESTS_FAULTS_FRONT_LIFE_H
#define KORVEX_TESTS_FAULTS_FRONT_LIFE_H

#include <string>

#include "attempts.h"

namespace korvex::test {

// What a host does with the C++ front, in memory when there is no directory: of a failure it sees korvex::error or
// std::bad_alloc, and the same call succeeds when it is made again.
class front_life : public attempts {
 public:
  explicit front_life(const std::string& directory) : directory_(directory) {}
  void live();

 private:
  const std::string& directory_;
};

}  // namespace korvex::test

#endif  // KORVEX_TESTS_FAULTS_FRONT_LIFE_H
