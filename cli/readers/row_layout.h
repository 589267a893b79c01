#ifndef KORVEX_CLI_READERS_ROW_LAYOUT_H
#define KORVEX_CLI_READERS_ROW_LAYOUT_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <type_traits>

#include "cli/readers/byte_source.h"
#include "cli/readers/vector_file.h"

namespace korvex::cli {

// What a header says about the rows that follow it.
struct row_layout {
  element_type type = element_type::f32;
  std::endian order = std::endian::little;
  std::uint64_t dimension = 0;
  std::optional<std::uint64_t> rows;  // none: until the end of the file
  std::uint64_t header_bytes = 0;
  bool prefixed = false;  // each row begins with its dimension, 32 bits, little endian

  std::uint64_t row_bytes() const;
};

// Parsers of headers: they read the header (of vecs files nothing) and check its fields one by one.
// idx and npy need `least_axes` or more; with a single one a row is one element.
row_layout parse_vecs(byte_source& source, element_type type);
row_layout parse_bin(byte_source& source, element_type type);
row_layout parse_idx(byte_source& source, unsigned least_axes = 2);
row_layout parse_npy(byte_source& source, unsigned least_axes = 2);

// Refuses a layout that no index could take or that the file's length does not bear; fills in the
// rows of a plain file. Every size fits 64 bits once dimension and rows are within their limits.
void check_layout(const byte_source& source, row_layout& layout);

// Reads the rows of a layout as raw elements, row prefixes checked and left out.
class row_reader {
 public:
  // Requirements  the layout was checked, the source stands behind its header
  row_reader(byte_source& source, const row_layout& layout) : source_(source), layout_(layout) {}
  // As vector_file::read; `out` takes count x dimension elements.
  std::size_t read(std::size_t count, unsigned char* out);

 private:
  bool read_row(unsigned char* out);
  bool read_prefix();

  byte_source& source_;
  const row_layout layout_;
  std::uint64_t next_row_ = 0;
};

// A fraction read as a whole number ends at the point, and at the ends of the range; what is no number is 0.
template <typename Number, typename Element>
Number number_of(Element value) {
  if constexpr (std::is_floating_point_v<Element> && std::is_integral_v<Number>) {
    using limits = std::numeric_limits<Number>;
    constexpr Element beyond = -static_cast<Element>(limits::min());  // a power of two
    if (value != value) return 0;
    if (value >= beyond) return limits::max();
    if (value < -beyond) return limits::min();
  }
  return static_cast<Number>(value);
}

// Elements of the file to float, double or std::int64_t. Whole numbers to std::int64_t keep their
// bits.
template <typename Number>
void convert_elements(const unsigned char* raw, std::size_t count, element_type type,
                      std::endian order, Number* out);
std::uint32_t load_u32(const unsigned char* bytes, std::endian order);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_READERS_ROW_LAYOUT_H
