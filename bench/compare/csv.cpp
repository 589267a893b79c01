#include <fmt/core.h>
#include <fmt/ostream.h>

#include <fstream>

#include "report.h"

namespace korvex::compare {

namespace {

// A field as it stands, or in quotation marks where it would be taken apart.
std::string field(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char each : text) quoted += each == '"' ? std::string("\"\"") : std::string(1, each);
  return quoted + "\"";
}

class csv_file {
 public:
  csv_file(const std::string& path, const std::string& name) : file_(path), name_(field(name)) {
    fmt::print(file_, "data,what,peer,threads,effort,recall,evaluations,round,value,unit\n");
  }

  void write(const peer_result& result, std::size_t n_queries) {
    if (result.bytes_a_vector > 0)
      fmt::print(file_, "{},memory,{},,,,,,{:.1f},bytes a vector\n", name_, result.name,
                 result.bytes_a_vector);
    for (const build_times& times : result.builds)
      for (std::size_t round = 0; round < times.seconds.size(); ++round)
        fmt::print(file_, "{},build,{},{},,,,{},{:.6f},seconds\n", name_, result.name,
                   times.threads, round, times.seconds[round]);
    for (const curve& of : result.curves)
      for (const level& each : of.levels) {
        std::vector<double> rates;
        for (const double seconds : each.seconds)
          rates.push_back(static_cast<double>(n_queries) / seconds);
        values("search", result, of, each, rates, "queries a second");
        values("p50", result, of, each, each.p50_seconds, "seconds");
        values("p99", result, of, each, each.p99_seconds, "seconds");
      }
  }

  bool finish() { return static_cast<bool>(file_.flush()); }

 private:
  void values(const char* what, const peer_result& result, const curve& of, const level& each,
              const std::vector<double>& values, const char* unit) {
    for (std::size_t round = 0; round < values.size(); ++round)
      fmt::print(file_, "{},{},{},{},{},{:.6f},{:.1f},{},{:.9g},{}\n", name_, what, result.name,
                 of.threads, each.effort, each.recall, each.evaluations, round, values[round],
                 unit);
  }

  std::ofstream file_;
  const std::string name_;
};

}  // namespace

bool write_csv(const std::string& path, const std::string& name,
               const std::vector<peer_result>& results, std::size_t n_queries) {
  csv_file file(path, name);
  for (const peer_result& result : results) file.write(result, n_queries);
  return file.finish();
}

}  // namespace korvex::compare
