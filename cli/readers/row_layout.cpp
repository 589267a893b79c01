#include "cli/readers/row_layout.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace korvex::cli {

namespace {

constexpr std::uint64_t prefix_bytes = 4;

template <typename Element>
Element load(const unsigned char* bytes, std::endian order) {
  unsigned char native[sizeof(Element)];
  std::memcpy(native, bytes, sizeof native);
  if (order != std::endian::native) std::reverse(native, native + sizeof native);
  Element value;
  std::memcpy(&value, native, sizeof value);
  return value;
}

template <typename Element, typename Number>
void convert(const unsigned char* raw, std::size_t count, std::endian order, Number* out) {
  for (std::size_t i = 0; i < count; ++i)
    out[i] = number_of<Number>(load<Element>(raw + i * sizeof(Element), order));
}

}  // namespace

std::size_t element_bytes(element_type type) {
  switch (type) {
    case element_type::u8:
    case element_type::i8:
      return 1;
    case element_type::u16:
    case element_type::i16:
      return 2;
    case element_type::u64:
    case element_type::i64:
    case element_type::f64:
      return 8;
    default:
      return 4;
  }
}

std::uint64_t row_layout::row_bytes() const {
  return dimension * element_bytes(type) + (prefixed ? prefix_bytes : 0);
}

void check_layout(const byte_source& source, row_layout& layout) {
  if (layout.dimension < 1 || layout.dimension > largest_dimension)
    source.fail(fmt::format("dimension {}, expected 1 to {}", layout.dimension, largest_dimension));
  if (layout.rows && (*layout.rows < 1 || *layout.rows > most_rows))
    source.fail(fmt::format("{} rows, expected 1 to {}", *layout.rows, most_rows));
  const std::uint64_t row = layout.row_bytes();
  const std::optional<std::uint64_t> content = source.size();
  if (layout.rows) {
    const std::uint64_t expected = layout.header_bytes + *layout.rows * row;
    if (content ? *content != expected : source.size_limit() < expected)
      source.fail(fmt::format("the content has {}{} bytes, expected {} for {} rows of {} bytes",
                              content ? "" : "at most ", source.size_limit(), expected,
                              *layout.rows, row));
    return;
  }
  if (!content) return;
  const std::uint64_t body = *content - std::min(*content, layout.header_bytes);
  if (body % row != 0)
    source.fail(fmt::format("{} bytes, expected a multiple of {} (rows of dimension {})", body, row,
                            layout.dimension));
  layout.rows = body / row;
  if (*layout.rows > most_rows)
    source.fail(fmt::format("{} rows, expected 1 to {}", *layout.rows, most_rows));
}

bool row_reader::read_prefix() {
  unsigned char bytes[prefix_bytes];
  const std::size_t got = source_.read(bytes, sizeof bytes);
  if (got == 0 && !layout_.rows) return false;
  if (got != sizeof bytes) source_.fail(fmt::format("the file ends at row {}", next_row_));
  const std::uint32_t dimension = load_u32(bytes, std::endian::little);
  if (dimension != layout_.dimension)
    source_.fail(fmt::format("row {} has dimension {}, expected {} as in row 0", next_row_,
                             static_cast<std::int32_t>(dimension), layout_.dimension));
  return true;
}

bool row_reader::read_row(unsigned char* out) {
  if (layout_.prefixed && !read_prefix()) return false;
  if (next_row_ >= most_rows) source_.fail(fmt::format("more than {} rows", most_rows));
  const std::size_t wanted = layout_.dimension * element_bytes(layout_.type);
  const std::size_t got = source_.read(out, wanted);
  if (got != wanted)
    source_.fail(fmt::format("the file ends inside row {}: found {} of its {} bytes", next_row_,
                             got, wanted));
  ++next_row_;
  return true;
}

std::size_t row_reader::read(std::size_t count, unsigned char* out) {
  const std::size_t step = layout_.dimension * element_bytes(layout_.type);
  for (std::size_t i = 0; i < count; ++i) {
    if (layout_.rows && next_row_ == *layout_.rows) {
      source_.expect_end();
      return i;
    }
    if (!read_row(out + i * step)) return i;
  }
  return count;
}

template <typename Number>
void convert_elements(const unsigned char* raw, std::size_t count, element_type type,
                      std::endian order, Number* out) {
  switch (type) {
    case element_type::u8:
      return convert<std::uint8_t>(raw, count, order, out);
    case element_type::i8:
      return convert<std::int8_t>(raw, count, order, out);
    case element_type::u16:
      return convert<std::uint16_t>(raw, count, order, out);
    case element_type::i16:
      return convert<std::int16_t>(raw, count, order, out);
    case element_type::u32:
      return convert<std::uint32_t>(raw, count, order, out);
    case element_type::i32:
      return convert<std::int32_t>(raw, count, order, out);
    case element_type::u64:
      return convert<std::uint64_t>(raw, count, order, out);
    case element_type::i64:
      return convert<std::int64_t>(raw, count, order, out);
    case element_type::f32:
      return convert<float>(raw, count, order, out);
    case element_type::f64:
      return convert<double>(raw, count, order, out);
  }
}
template void convert_elements(const unsigned char*, std::size_t, element_type, std::endian,
                               float*);
template void convert_elements(const unsigned char*, std::size_t, element_type, std::endian,
                               double*);
template void convert_elements(const unsigned char*, std::size_t, element_type, std::endian,
                               std::int64_t*);

std::uint32_t load_u32(const unsigned char* bytes, std::endian order) {
  return load<std::uint32_t>(bytes, order);
}

}  // namespace korvex::cli
