#ifndef KORVEX_RUNTIME_TEXT_BOX_H
#define KORVEX_RUNTIME_TEXT_BOX_H

#include <cstdio>
#include <span>
#include <string>
#include <string_view>

namespace korvex {

// A frame of `width` columns around lines of UTF-8 text, ending in a newline.
// A line that begins with ":" is a title: centred, without the colon. A lone "-" is a rule across
// the box. Other lines wrap at spaces to width - 4 columns; words that are longer are cut. An empty
// line stays an empty row. Widths below 5 count as 5. Each code point takes one column; bytes that
// are not UTF-8 and control characters show as "?".
std::string format_text_box(std::span<const std::string_view> lines, int width);

// Writes the whole box with one call, so that lines of other threads do not get into it. A null
// file: nothing.
void print_text_box(std::FILE* file, std::span<const std::string_view> lines, int width);

}  // namespace korvex

#endif  // KORVEX_RUNTIME_TEXT_BOX_H
