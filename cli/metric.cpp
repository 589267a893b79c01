#include "cli/metric.h"

namespace korvex::cli {

metric_choice metric_named(const std::string& name) {
  if (name == "l2") return {name, DISTANCE_L2, false};
  if (name == "ip") return {name, DISTANCE_INNER_PRODUCT, false};
  if (name == "cosine") return {name, DISTANCE_INNER_PRODUCT, true};
  return {name, DISTANCE_L2_SQUARE, false};
}

metric_choice metric_of(std::uint32_t type, bool unit) {
  if (type == DISTANCE_INNER_PRODUCT) return metric_named(unit ? "cosine" : "ip");
  return metric_named(type == DISTANCE_L2 ? "l2" : "l2sq");
}

}  // namespace korvex::cli
