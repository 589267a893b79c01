#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "cli/readers/row_layout.h"

// npy: "\x93NUMPY", version, header length (uint16, from version 2 on uint32, little endian), a
// dictionary as text with the keys descr, fortran_order and shape; the elements.
namespace korvex::cli {

namespace {

constexpr std::string_view magic = "\x93NUMPY";
constexpr std::uint64_t longest_header = 1u << 16;

// The entries of the dictionary: key -> text of the value, quotes and brackets included. Values are
// names, strings and flat tuples; anything deeper is refused.
class dictionary {
 public:
  dictionary(const byte_source& source, std::string_view text) : source_(source), rest_(text) {
    expect('{');
    while (!accept('}')) {
      const std::string key(string());
      expect(':');
      if (!entries_.emplace(key, value()).second) fail("the key '" + key + "' twice");
      if (!accept(',')) {
        expect('}');
        break;
      }
    }
    if (skip_blanks(), !rest_.empty()) fail("text behind the dictionary");
  }

  std::string_view get(const std::string& key) const {
    const auto entry = entries_.find(key);
    if (entry == entries_.end()) fail("no key '" + key + "'");
    return entry->second;
  }
  [[noreturn]] void fail(const std::string& what) const { source_.fail("npy header: " + what); }

 private:
  void skip_blanks() {
    rest_.remove_prefix(std::min(rest_.find_first_not_of(" \n\t"), rest_.size()));
  }
  bool accept(char wanted) {
    skip_blanks();
    if (rest_.empty() || rest_.front() != wanted) return false;
    rest_.remove_prefix(1);
    return true;
  }
  void expect(char wanted) {
    if (accept(wanted)) return;
    fail(fmt::format("found {}, expected '{}'",
                     rest_.empty() ? "the end" : fmt::format("'{}'", rest_.front()), wanted));
  }
  std::string_view take(std::size_t length) {
    return std::exchange(rest_, rest_.substr(length)).substr(0, length);
  }
  std::string_view string() {
    expect('\'');
    const std::size_t end = rest_.find('\'');
    if (end == std::string_view::npos) fail("a string without end");
    const std::string_view content = take(end);
    rest_.remove_prefix(1);
    return content;
  }
  std::string_view value() {
    skip_blanks();
    if (!rest_.empty() && rest_.front() == '\'') return string();
    const bool tuple = !rest_.empty() && rest_.front() == '(';
    const std::size_t end = rest_.find_first_of(tuple ? ")" : ",} ");
    if (end == std::string_view::npos) fail("a value without end");
    return take(tuple ? end + 1 : end);
  }

  const byte_source& source_;
  std::string_view rest_;
  std::map<std::string, std::string_view> entries_;
};

void set_element(const dictionary& header, row_layout& layout) {
  static constexpr std::pair<std::string_view, element_type> types[] = {
      {"u1", element_type::u8},  {"i1", element_type::i8},  {"u2", element_type::u16},
      {"i2", element_type::i16}, {"u4", element_type::u32}, {"i4", element_type::i32},
      {"u8", element_type::u64}, {"i8", element_type::i64}, {"f4", element_type::f32},
      {"f8", element_type::f64}};
  const std::string_view descr = header.get("descr");
  const auto* const type = std::find_if(std::begin(types), std::end(types), [&](const auto& entry) {
    return descr.size() == 3 && descr.substr(1) == entry.first;
  });
  const bool known = type != std::end(types);
  const char order = descr.empty() ? '\0' : descr.front();
  if (!known ||
      (order != '<' && order != '>' && !(order == '|' && element_bytes(type->second) == 1)))
    header.fail(
        fmt::format("element type '{}', expected one of u1 i1 u2 i2 u4 i4 u8 i8 f4 f8 with a byte "
                    "order in front",
                    descr));
  layout.type = type->second;
  layout.order = order == '>' ? std::endian::big : std::endian::little;
}

// The next length of a shape's text, or none at its end.
std::optional<std::uint64_t> take_length(const dictionary& header, std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  if (text.empty()) return std::nullopt;
  const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  // 15 digits fit 64 bits with room to spare.
  if (digits < 1 || digits > 15) header.fail("the shape holds something that is no length");
  const std::uint64_t length = std::stoull(std::string(text.substr(0, digits)));
  text.remove_prefix(digits);
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  if (!text.empty() && text.front() != ',')
    header.fail("the shape holds something that is no length");
  if (!text.empty()) text.remove_prefix(1);
  return length;
}

void set_shape(const dictionary& header, unsigned least_axes, row_layout& layout) {
  const std::string_view shape = header.get("shape");
  if (shape.size() < 2 || shape.front() != '(') header.fail("the shape is no tuple");
  std::string_view text = shape.substr(1, shape.size() - 2);
  layout.rows = take_length(header, text);
  layout.dimension = 1;
  unsigned axes = layout.rows ? 1 : 0;
  while (const std::optional<std::uint64_t> length = take_length(header, text)) {
    ++axes;
    if (*length < 1 || *length > largest_dimension / layout.dimension)
      header.fail(
          fmt::format("shape {}, expected 1 to {} elements a row", shape, largest_dimension));
    layout.dimension *= *length;
  }
  if (axes < least_axes)
    header.fail(
        fmt::format("shape {}, expected rows{}", shape, least_axes > 1 ? " and columns" : ""));
}

std::string read_header_text(byte_source& source, row_layout& layout) {
  unsigned char start[8];
  source.read_exactly(start, sizeof start, "the npy header");
  if (std::memcmp(start, magic.data(), magic.size()) != 0)
    source.fail("not an npy file: wrong magic");
  const unsigned version = start[6];
  if (version < 1 || version > 3)
    source.fail(fmt::format("npy version {}, expected 1 to 3", version));
  unsigned char length_bytes[4] = {};
  const std::size_t length_size = version == 1 ? 2 : 4;
  source.read_exactly(length_bytes, length_size, "the npy header");
  const std::uint64_t length = load_u32(length_bytes, std::endian::little);
  if (length > longest_header)
    source.fail(fmt::format("npy header of {} bytes, expected at most {}", length, longest_header));
  layout.header_bytes = sizeof start + length_size + length;
  std::string text(length, '\0');
  source.read_exactly(text.data(), text.size(), "the npy header");
  return text;
}

}  // namespace

row_layout parse_npy(byte_source& source, unsigned least_axes) {
  row_layout layout;
  const std::string text = read_header_text(source, layout);
  const dictionary header(source, text);
  set_element(header, layout);
  if (header.get("fortran_order") != "False")
    header.fail(fmt::format("fortran_order {}, expected False (rows one after the other)",
                            header.get("fortran_order")));
  set_shape(header, least_axes, layout);
  check_layout(source, layout);
  return layout;
}

}  // namespace korvex::cli
