#ifndef KORVEX_BENCH_COMPARE_OBTAIN_H
#define KORVEX_BENCH_COMPARE_OBTAIN_H

#include <string>

#include "dataset.h"
#include "options.h"

namespace korvex::compare {

// The vectors that are wanted; throws std::runtime_error when there are too few.
dataset obtain_data(const options& o);

// The data's name for tables: a file's without its folders.
std::string name_of_data(const options& o);

// The quantity that is measured, in words.
std::string metric_of(const options& o);

// One line on standard error when a file says that its distance is another than the one that is measured.
void warn_of_distance(const options& o, const dataset& data);

// One line on standard error when the data and so many indexes with vectors of their own, all of them at once, will
// take more memory than is free. Throws what loading throws.
void warn_of_memory(const options& o, std::size_t n_indexes);

}  // namespace korvex::compare

#endif  // KORVEX_BENCH_COMPARE_OBTAIN_H
