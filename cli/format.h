#ifndef KORVEX_CLI_FORMAT_H
#define KORVEX_CLI_FORMAT_H

#include <cstdint>
#include <string>

namespace korvex::cli {

// 1234567 as "1,234,567".
inline std::string grouped(std::uint64_t value) {
  std::string text = std::to_string(value);
  for (std::size_t at = text.size(); at > 3; at -= 3) text.insert(at - 3, ",");
  return text;
}

}  // namespace korvex::cli

#endif  // KORVEX_CLI_FORMAT_H
