#ifndef KORVEX_BENCH_COMPARE_REPORT_H
#define KORVEX_BENCH_COMPARE_REPORT_H

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "measure.h"

namespace korvex::compare {

struct summary {
  double median = 0;
  double low = 0;
  double high = 0;
};
summary summarise(std::vector<double> values);

// A positive quantity of levels where a curve reaches a recall: its logarithm is taken to be linear in the recall
// between two measured levels. Empty outside of what was measured, and where the quantity is not positive there.
using level_quantity = double (*)(const level&, std::size_t round);
std::optional<double> value_at(const std::vector<level>& levels, double recall,
                               level_quantity quantity, std::size_t round = 0);

// Tables for people; each part is flushed when it is done.
void print_builds(std::ostream& out, const std::vector<peer_result>& results);
// Curves of all peers, and the first peer's against each other's.
void print_report(std::ostream& out, const plan& plan, const dataset& data,
                  const std::vector<peer_result>& results);

// One line a measured value: data,what,peer,threads,effort,recall,evaluations,round,value,unit. False when the file
// fails.
bool write_csv(const std::string& path, const std::string& name,
               const std::vector<peer_result>& results, std::size_t n_queries);

}  // namespace korvex::compare

#endif  // KORVEX_BENCH_COMPARE_REPORT_H
