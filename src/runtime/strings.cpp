#include "runtime/strings.h"

namespace korvex {

std::string with_thousands(std::uint64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3;) digits.insert(at -= 3, 1, ',');
  return digits;
}

}  // namespace korvex
