#ifndef KORVEX_RUNTIME_STRINGS_H
#define KORVEX_RUNTIME_STRINGS_H

#include <cstdint>
#include <string>

namespace korvex {

// 1234567 as "1,234,567", whatever the host's locale.
std::string with_thousands(std::uint64_t number);

}  // namespace korvex

#endif  // KORVEX_RUNTIME_STRINGS_H
