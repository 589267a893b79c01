#include "heading.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <fmt/ostream.h>
#include <stdlib.h>

#include <ctime>
#include <fstream>
#include <ostream>
#include <thread>

#include "math/kernels.h"
#include "obtain.h"
#include "runtime/platform/memory.h"

namespace korvex::compare {

namespace {

// Of a file by which the system tells about itself.
std::string first_line(const char* path) {
  std::ifstream file(path);
  std::string line;
  return std::getline(file, line) ? line : "unknown";
}

// The system lists all modes, the one in force in brackets.
std::string large_page_mode() {
  const std::string modes = first_line("/sys/kernel/mm/transparent_hugepage/enabled");
  const std::size_t begin = modes.find('[');
  const std::size_t end = modes.find(']');
  if (begin == std::string::npos || end == std::string::npos) return modes;
  return modes.substr(begin + 1, end - begin - 1);
}

std::string free_memory() {
  const std::uint64_t bytes = platform::available_memory();
  return bytes == 0 ? "unknown" : fmt::format("{:.1f} GB", static_cast<double>(bytes) * 1e-9);
}

}  // namespace

std::string load_average() {
  double load[1];
  return getloadavg(load, 1) == 1 ? fmt::format("{:.2f}", load[0]) : "unknown";
}

void print_heading(std::ostream& out, const options& o, const dataset& data) {
  fmt::print(out, "date             {:%Y-%m-%d %H:%M} UTC\n", fmt::gmtime(std::time(nullptr)));
  fmt::print(out, "data             {}, {} x {}, {} queries\n", data.recipe, data.base.rows,
             data.base.dimension, data.queries.rows);
  fmt::print(out, "metric           {}\n", metric_of(o));
  fmt::print(out, "machine          {}, {} processors, load {} before, memory free {}\n",
             detect_cpu_features().brand, std::thread::hardware_concurrency(), load_average(),
             free_memory());
  fmt::print(out, "system           kernel {}, transparent large pages: {}\n",
             first_line("/proc/sys/kernel/osrelease"), large_page_mode());
  fmt::print(out, "compiler         {}, {}\n", KORVEX_COMPILER_TEXT, KORVEX_BUILD_TEXT);
  fmt::print(out, "instruction set  {}\n", chosen_kernels());
  fmt::print(out, "threads          building {}, searching {}\n", fmt::join(o.build_threads, ", "),
             fmt::join(o.search_threads, ", "));
  fmt::print(out, "clock            {}\n",
             o.processor_time ? "processor time of all threads" : "time gone by");
}

}  // namespace korvex::compare
