#include "cli/writers/vector_writer.h"

#include <fmt/format.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>
#include <type_traits>

#include "cli/errors.h"
#include "runtime/platform/files.h"

namespace korvex::cli {

namespace {

static_assert(std::endian::native == std::endian::little, "the formats are little endian");

constexpr std::size_t npy_header_bytes = 128;

element_type element_of(vector_format format, element_type given) {
  switch (format) {
    case vector_format::fvecs:
    case vector_format::fbin:
      return element_type::f32;
    case vector_format::bvecs:
    case vector_format::u8bin:
      return element_type::u8;
    case vector_format::ivecs:
      return element_type::i32;
    case vector_format::npy:
      if (given == element_type::u8) return given;
      if (!is_whole(given)) return element_type::f32;
      return element_bytes(given) < 4 || given == element_type::i32 ? element_type::i32
                                                                    : element_type::i64;
    default:
      return given;
  }
}

const char* npy_type(element_type element) {
  if (element == element_type::u8) return "|u1";
  if (element == element_type::i32) return "<i4";
  return element == element_type::i64 ? "<i8" : "<f4";
}

bool has_header(vector_format format) {
  return format == vector_format::npy || format == vector_format::fbin ||
         format == vector_format::u8bin;
}

bool has_prefix(vector_format format) {
  return format == vector_format::fvecs || format == vector_format::bvecs ||
         format == vector_format::ivecs;
}

template <typename Number>
void append(std::string& bytes, Number value) {
  char raw[sizeof value];
  std::memcpy(raw, &value, sizeof value);
  bytes.append(raw, sizeof raw);
}

}  // namespace

bool vector_writer::can_write(vector_format format) {
  return format == vector_format::text || has_header(format) || has_prefix(format);
}

vector_writer::vector_writer(const std::string& path, vector_format format, element_type element,
                             std::size_t dimension, std::uint64_t rows)
    : out_(path),
      format_(format),
      element_(element_of(format, element)),
      dimension_(dimension),
      announced_rows_(rows) {
  if (out_.is_standard_output() && format != vector_format::text && platform::is_terminal(stdout))
    throw tool_error(exit_usage, fmt::format("{} is no text for a terminal: name an output file, "
                                             "or send standard output to one",
                                             name_of(format)));
  if (!has_header(format)) return;
  if (rows == 0 && !out_.can_rewind())
    throw tool_error(exit_usage,
                     fmt::format("{} begins with the number of rows, which is not known yet: write "
                                 "to a file, or in a format without it (fvecs)",
                                 name_of(format)));
  put_header(rows);
  out_.write(header_);
}

void vector_writer::put_header(std::uint64_t rows) {
  header_.clear();
  if (format_ != vector_format::npy) {
    append(header_, static_cast<std::uint32_t>(rows));
    append(header_, static_cast<std::uint32_t>(dimension_));
    return;
  }
  header_ = std::string("\x93NUMPY\x01\x00", 8);
  append(header_, static_cast<std::uint16_t>(npy_header_bytes - 10));
  header_ += fmt::format("{{'descr': '{}', 'fortran_order': False, 'shape': ({}, {}), }}",
                         npy_type(element_), rows, dimension_);
  header_.resize(npy_header_bytes - 1, ' ');
  header_ += '\n';
}

void vector_writer::write(const double* rows, std::size_t count) {
  for (std::size_t row = 0; row < count; ++row, rows += dimension_) {
    buffer_.clear();
    if (has_prefix(format_)) append(buffer_, static_cast<std::uint32_t>(dimension_));
    for (std::size_t i = 0; i < dimension_; ++i)
      format_ == vector_format::text ? put_text(rows[i], i) : put(rows[i]);
    if (format_ == vector_format::text) buffer_ += '\n';
    out_.write(buffer_);
    ++rows_;
  }
}

void vector_writer::put(double value) {
  if (element_ == element_type::u8) return put_as<std::uint8_t>(value);
  if (element_ == element_type::i32) return put_as<std::int32_t>(value);
  if (element_ == element_type::i64) return put_as<std::int64_t>(value);
  put_as<float>(value);
}

template <typename Element>
void vector_writer::put_as(double value) {
  using limits = std::numeric_limits<Element>;
  const double least = static_cast<double>(limits::lowest());
  const double most = static_cast<double>(limits::max());
  if (std::is_integral_v<Element>) {
    if (!(value >= least && value <= most) || std::trunc(value) != value) refuse(value);
  } else if (std::isfinite(value) && !(value >= least && value <= most)) {
    refuse(value);
  }
  append(buffer_, static_cast<Element>(value));
}

// The shortest text that reads as the same number again.
void vector_writer::put_text(double value, std::size_t column) {
  if (column != 0) buffer_ += ' ';
  const auto to = std::back_inserter(buffer_);
  if (element_ == element_type::f32)
    fmt::format_to(to, "{}", static_cast<float>(value));
  else if (is_whole(element_))
    fmt::format_to(to, "{:.0f}", value);
  else
    fmt::format_to(to, "{}", value);
}

void vector_writer::refuse(double value) const {
  const bool bytes = element_ == element_type::u8;
  throw tool_error(exit_input, fmt::format("row {} holds {}, expected {} for {}", rows_, value,
                                           bytes ? "a whole number from 0 to 255"
                                           : element_ == element_type::f32 ? "a 32-bit float"
                                                                           : "a whole number",
                                           name_of(format_)));
}

void vector_writer::commit() {
  if (has_header(format_) && rows_ != announced_rows_) {
    if (!out_.can_rewind())
      throw tool_error(exit_output,
                       fmt::format("{} rows were written, {} announced", rows_, announced_rows_));
    put_header(rows_);
    out_.rewrite_front(header_.data(), header_.size());
  }
  out_.commit();
}

vector_format output_format(const std::string& path, const std::string& format) {
  const vector_format named = format_named(format);
  const vector_format chosen = named != vector_format::unknown ? named : format_of_path(path);
  if (chosen == vector_format::unknown)
    throw tool_error(exit_usage, fmt::format("'{}' does not tell a format: expected a name that "
                                             "ends in .fvecs, .bvecs, .ivecs, .fbin, .u8bin, .npy "
                                             "or .txt, or the format said",
                                             path));
  if (!vector_writer::can_write(chosen))
    throw tool_error(exit_usage, fmt::format("{} is read but not written: expected fvecs, bvecs, "
                                             "ivecs, fbin, u8bin, npy or text",
                                             name_of(chosen)));
  return chosen;
}

}  // namespace korvex::cli
