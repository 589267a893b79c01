#include "runtime/text_box.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "runtime/platform/files.h"

namespace korvex {
namespace {

constexpr int frame_columns = 4;  // "| " and " |"

// Bytes of the code point at the start of `text`, 0 when they are none.
std::size_t code_point_bytes(std::string_view text) {
  struct form {
    unsigned char mask, lead;
    std::uint32_t smallest;  // a longer form of a smaller value is not UTF-8
  };
  static constexpr form forms[] = {
      {0x80, 0x00, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}};
  const auto first = static_cast<unsigned char>(text.front());
  for (std::size_t bytes = 1; bytes <= 4; ++bytes) {
    const form& f = forms[bytes - 1];
    if ((first & f.mask) != f.lead) continue;
    if (text.size() < bytes) return 0;
    std::uint32_t value = first & static_cast<unsigned char>(~f.mask);
    for (const char c : text.substr(1, bytes - 1)) {
      const auto next = static_cast<unsigned char>(c);
      if ((next & 0xC0) != 0x80) return 0;
      value = value << 6 | (next & 0x3F);
    }
    const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
    return value < f.smallest || value > 0x10FFFF || surrogate ? 0 : bytes;
  }
  return 0;
}

bool is_space(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// Text that is safe to print and whose columns are known.
class row {
 public:
  void append_code_point(std::string_view bytes) {
    text_ += bytes;
    ++columns_;
  }
  void append(const row& other) {
    text_ += other.text_;
    columns_ += other.columns_;
  }
  std::size_t columns() const { return columns_; }
  bool empty() const { return columns_ == 0; }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
  std::size_t columns_ = 0;
};

// Takes the next word, at most `most` columns of it, from the front of `text`; empty when none is
// left.
row take_word(std::string_view& text, std::size_t most) {
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  row word;
  while (!text.empty() && !is_space(text.front()) && word.columns() < most) {
    const std::size_t bytes = code_point_bytes(text);
    const auto first = static_cast<unsigned char>(text.front());
    const bool printable = bytes != 0 && first >= 0x20 && first != 0x7F;
    word.append_code_point(printable ? text.substr(0, bytes) : "?");
    text.remove_prefix(std::max<std::size_t>(bytes, 1));
  }
  return word;
}

// At least one row, so that an empty line shows as one.
std::vector<row> wrap(std::string_view text, std::size_t columns) {
  std::vector<row> rows(1);
  for (row word = take_word(text, columns); !word.empty(); word = take_word(text, columns)) {
    if (!rows.back().empty() && rows.back().columns() + 1 + word.columns() > columns)
      rows.emplace_back();
    if (!rows.back().empty()) rows.back().append_code_point(" ");
    rows.back().append(word);
  }
  return rows;
}

}  // namespace

std::string format_text_box(std::span<const std::string_view> lines, int width) {
  const auto inner = static_cast<std::size_t>(std::max(width, frame_columns + 1) - frame_columns);
  const std::string rule = "+" + std::string(inner + 2, '-') + "+\n";
  std::string box = rule;
  for (const std::string_view line : lines) {
    if (line == "-") {
      box += rule;
      continue;
    }
    const bool title = line.starts_with(':');
    for (const row& r : wrap(line.substr(title ? 1 : 0), inner)) {
      const std::size_t room = inner - r.columns();
      const std::size_t before = title ? room / 2 : 0;
      box += "| " + std::string(before, ' ') + r.text() + std::string(room - before, ' ') + " |\n";
    }
  }
  return box + rule;
}

void print_text_box(std::FILE* file, std::span<const std::string_view> lines, int width) {
  if (file == nullptr) return;
  const std::string box = format_text_box(lines, width);
  platform::write_stream(file, box.data(), box.size());
}

}  // namespace korvex
