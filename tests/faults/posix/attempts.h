#ifndef KORVEX_TESTS_FAULTS_ATTEMPTS_H
#define KORVEX_TESTS_FAULTS_ATTEMPTS_H

#include <gtest/gtest.h>

#include "injection.h"

namespace korvex::test {

// The operations of a life during which one call fails: one of them may be refused, and succeeds when it is tried again.
class attempts {
 public:
  template <class Operation>
  void attempt(const char* what, const Operation& operation) {
    if (broken_ || operation()) return;
    EXPECT_TRUE(injection::failed()) << what << " failed for no reason";
    EXPECT_FALSE(excused_) << what << ": one failure cost two operations";
    excused_ = true;
    broken_ = !operation();
    EXPECT_FALSE(broken_) << what << ": fails again when memory is back";
  }

 protected:
  bool broken_ = false;   // nothing more can be said
  bool excused_ = false;  // an operation has paid for the failure
};

}  // namespace korvex::test

#endif  // KORVEX_TESTS_FAULTS_ATTEMPTS_H
