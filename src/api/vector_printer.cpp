#include "api/vector_printer.h"

#include <string>

#include "runtime/log.h"
#include "runtime/platform/files.h"

namespace korvex {

void print_vector(const char* label, std::span<const std::uint32_t> values) {
  std::FILE* const file = log_fp();
  if (file == nullptr) return;
  std::string text = label;
  text += '[';
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i != 0) text += ", ";
    text += std::to_string(values[i]);
  }
  text += "]\n";
  platform::write_stream(file, text.data(), text.size());
}

}  // namespace korvex
