#ifndef KORVEX_API_VECTOR_PRINTER_H
#define KORVEX_API_VECTOR_PRINTER_H

#include <cstdint>
#include <span>

namespace korvex {

// Prints the label, then the numbers as "[1, 2, 3]" and a newline, to the log's first output in one
// write. Nothing while the log has none.
void print_vector(const char* label, std::span<const std::uint32_t> values);

}  // namespace korvex

#endif  // KORVEX_API_VECTOR_PRINTER_H
