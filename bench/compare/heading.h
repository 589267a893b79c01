#ifndef KORVEX_BENCH_COMPARE_HEADING_H
#define KORVEX_BENCH_COMPARE_HEADING_H

#include <iosfwd>
#include <string>

#include "dataset.h"
#include "options.h"

namespace korvex::compare {

// What is measured, on which machine, and how: all that a reader of the figures needs to judge them.
void print_heading(std::ostream& out, const options& o, const dataset& data);

// Of the last minute, as the system counts it.
std::string load_average();

}  // namespace korvex::compare

#endif  // KORVEX_BENCH_COMPARE_HEADING_H
