#include <fmt/format.h>

#include "cli/readers/row_layout.h"

// idx: 0, 0, element type, number of axes; the lengths of the axes (uint32, big endian); the
// elements, big endian. The first axis counts the rows, the others are laid out flat.
namespace korvex::cli {

namespace {

constexpr unsigned most_axes = 8;

element_type type_of(const byte_source& source, unsigned code) {
  switch (code) {
    case 0x08:
      return element_type::u8;
    case 0x09:
      return element_type::i8;
    case 0x0B:
      return element_type::i16;
    case 0x0C:
      return element_type::i32;
    case 0x0D:
      return element_type::f32;
    case 0x0E:
      return element_type::f64;
    default:
      source.fail(
          fmt::format("idx element type 0x{:02x}, expected 0x08, 09, 0b, 0c, 0d or 0e", code));
  }
}

}  // namespace

row_layout parse_idx(byte_source& source, unsigned least_axes) {
  unsigned char magic[4];
  source.read_exactly(magic, sizeof magic, "the idx header");
  if (magic[0] != 0 || magic[1] != 0)
    source.fail(fmt::format("the idx header begins with bytes {:02x} {:02x}, expected 00 00",
                            magic[0], magic[1]));
  const unsigned axes = magic[3];
  row_layout layout;
  layout.type = type_of(source, magic[2]);
  layout.order = std::endian::big;
  if (axes < least_axes || axes > most_axes)
    source.fail(fmt::format("idx with {} axes, expected {} to {}", axes, least_axes, most_axes));
  layout.header_bytes = sizeof magic + 4 * axes;
  layout.dimension = 1;
  for (unsigned axis = 0; axis < axes; ++axis) {
    unsigned char bytes[4];
    source.read_exactly(bytes, sizeof bytes, "the idx header");
    const std::uint64_t length = load_u32(bytes, std::endian::big);
    if (axis == 0) {
      layout.rows = length;
      continue;
    }
    layout.dimension *= length;  // at most 2^20 x 2^32
    if (layout.dimension < 1 || layout.dimension > largest_dimension)
      source.fail(fmt::format("dimension {} after axis {}, expected 1 to {}", layout.dimension,
                              axis, largest_dimension));
  }
  check_layout(source, layout);
  return layout;
}

}  // namespace korvex::cli
