#ifndef KORVEX_CLI_READERS_TEXT_H
#define KORVEX_CLI_READERS_TEXT_H

#include <memory>

#include "cli/readers/vector_file.h"

namespace korvex::cli {

// Text: a row a line, numbers apart by blanks, tabs, commas or semicolons. Empty lines and lines
// that begin with # count for nothing. The first row tells the dimension. Rows of u64 are whole
// numbers from 0.
std::unique_ptr<vector_file> open_text_file(std::unique_ptr<byte_source> source,
                                            element_type element = element_type::f64);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_READERS_TEXT_H
