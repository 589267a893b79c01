#ifndef KORVEX_TESTS_CRASH_FLUSH_RECORD_H
#define KORVEX_TESTS_CRASH_FLUSH_RECORD_H

#include <string>

// Keeps beside an index what its device would hold: a copy of every file as it was at its last flush, and of the names
// that a directory had at its own.
namespace korvex::test {

inline constexpr const char* entry_mark =
    ".entry";  // behind a name: the directory was flushed with it

// From now on, in this process, for files in `directory`. The copies go to `device`, which may hold earlier ones.
void record_flushes(const std::string& directory, const std::string& device);

}  // namespace korvex::test

#endif  // KORVEX_TESTS_CRASH_FLUSH_RECORD_H
