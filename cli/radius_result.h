#ifndef KORVEX_CLI_RADIUS_RESULT_H
#define KORVEX_CLI_RADIUS_RESULT_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace korvex::cli {

// What was measured at one radius.
struct radius_result {
  int radius = 0;
  double recall = 0;                       // of the batch's answers
  double session_recall = 0;               // of the answers of the single session (eval)
  std::vector<double> queries_per_second;  // of the batch, one a round
  std::vector<double> latencies;           // seconds a query, of all rounds, ascending

  double median_rate() const;
  double mean_latency() const;
  // Nearest rank: the smallest latency that this share of the queries does not exceed.
  double latency_quantile(double share) const;
};

// Head and a line for each radius. Without recall its column is left out.
std::string results_table(const std::vector<radius_result>& results, int k, bool recall);
nlohmann::ordered_json result_json(const radius_result& at);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_RADIUS_RESULT_H
