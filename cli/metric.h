#ifndef KORVEX_CLI_METRIC_H
#define KORVEX_CLI_METRIC_H

#include <string>
#include <vector>

#include "math/metrics.h"

namespace korvex::cli {

// How nearness is counted, by the tool's names.
struct metric_choice {
  std::string name;
  korvex_distance_type type = DISTANCE_L2_SQUARE;
  bool unit = false;  // vectors count by their direction alone: cosine

  // What a user reads: of the cosine 1 - cosine, else the raw value.
  float shown(float distance) const { return unit ? 1 - distance : distance; }
};

inline const std::vector<std::string> metric_names = {"l2sq", "l2", "ip", "cosine"};
inline constexpr const char* metric_help =
    "Nearness: l2sq and l2 are squared and plain Euclidean distance, ip the dot product (larger is "
    "nearer), cosine 1 - cosine of the angle";

// Requirements  one of metric_names
metric_choice metric_named(const std::string& name);
// Of an index that says "metric number, unit copies".
metric_choice metric_of(std::uint32_t type, bool unit);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_METRIC_H
