#ifndef KORVEX_TESTS_CRASH_POWER_CUT_H
#define KORVEX_TESTS_CRASH_POWER_CUT_H

#include <random>
#include <string>

namespace korvex::test {

// Turns the files in `directory` into what a power cut leaves: each as `device` holds it (see flush_record.h), where
// every page that was written later survives with the probability `luck`. Files and names that were never flushed
// survive or not, and a file that was removed may be back.
void cut_power(const std::string& directory, const std::string& device, double luck,
               std::mt19937* random);

}  // namespace korvex::test

#endif  // KORVEX_TESTS_CRASH_POWER_CUT_H
