#ifndef KORVEX_TESTS_FAULTS_INJECTION_H
#define KORVEX_TESTS_FAULTS_INJECTION_H

#include <cstddef>
#include <cstdint>
#include <vector>

// Every allocation and every call by which the library asks the system for memory, room, files or threads passes here,
// and any one of them can be made to fail. All threads count together.
namespace korvex::test::injection {

// One place in the code: the calls that came there by the same way have the same number.
struct call {
  const char* name;
  std::uint64_t place;
};

// Counts and notes the calls from now on.
void record();
std::vector<call> recorded();
// From now on the call with this number, from 1, fails, and no other.
void fail(long number);
// Nothing fails or counts any more.
void stop();
// Whether the call has failed by now.
bool failed();
// Who asked for it, to standard error.
void print_failed();

// Bytes that are mapped now.
std::int64_t mapped_bytes();

// What a test itself needs is not counted: for the calling thread, as long as the object exists.
class pause {
 public:
  pause();
  ~pause();
  pause(const pause&) = delete;
  pause& operator=(const pause&) = delete;
};

}  // namespace korvex::test::injection

#endif  // KORVEX_TESTS_FAULTS_INJECTION_H
