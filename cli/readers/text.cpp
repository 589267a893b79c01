#include "cli/readers/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

#include "cli/readers/row_layout.h"

namespace korvex::cli {

namespace {

constexpr std::size_t text_bytes = 1u << 16;
// Room for the longest row that an index takes; what is longer is no text.
constexpr std::size_t longest_line = std::size_t{32} << 20;
constexpr std::string_view separators = " \t,;\r";

class text_file final : public vector_file {
 public:
  text_file(std::unique_ptr<byte_source> source, element_type element)
      : source_(std::move(source)), element_(element) {
    line_waits_ = next_line();
    if (!line_waits_) source_->fail("no row: the text is empty");
    std::string_view rest = line_;
    while (!next_word(&rest).empty()) ++dimension_;
    if (dimension_ > largest_dimension)
      fail(fmt::format("{} numbers, expected 1 to {}", dimension_, largest_dimension));
  }

  std::size_t dimension() const override { return dimension_; }
  std::optional<std::uint64_t> rows() const override { return std::nullopt; }
  element_type element() const override { return element_; }
  std::size_t read(std::size_t count, float* out) override { return read_as(count, out); }
  std::size_t read(std::size_t count, double* out) override { return read_as(count, out); }
  std::size_t read(std::size_t count, std::int64_t* out) override { return read_as(count, out); }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    source_->fail(fmt::format("line {}: {}", line_number_, what));
  }

  // The next line that holds a row, in line_; false at the end.
  bool next_line() {
    while (take_line()) {
      const std::size_t first = line_.find_first_not_of(separators);
      if (first != std::string::npos && line_[first] != '#') return true;
    }
    return false;
  }

  bool take_line() {
    line_.clear();
    ++line_number_;
    bool any = false;
    for (;;) {
      if (next_ == filled_ && !refill()) return any;
      any = true;
      const auto begin = buffer_.begin() + static_cast<std::ptrdiff_t>(next_);
      const auto stop = buffer_.begin() + static_cast<std::ptrdiff_t>(filled_);
      const auto end = std::find(begin, stop, '\n');
      if (line_.size() + text_bytes > longest_line) fail("longer than any row of numbers");
      line_.append(begin, end);
      next_ = static_cast<std::size_t>(end - buffer_.begin()) + (end == stop ? 0 : 1);
      if (end != stop) return true;
    }
  }

  bool refill() {
    buffer_.resize(text_bytes);
    next_ = 0;
    filled_ = source_->read(buffer_.data(), buffer_.size());
    return filled_ != 0;
  }

  static std::string_view next_word(std::string_view* rest) {
    rest->remove_prefix(std::min(rest->find_first_not_of(separators), rest->size()));
    const std::size_t length = std::min(rest->find_first_of(separators), rest->size());
    const std::string_view word = rest->substr(0, length);
    rest->remove_prefix(length);
    return word;
  }

  template <typename Parsed>
  Parsed parsed(std::string_view word) const {
    Parsed value{};
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error == std::errc() && end == word.data() + word.size()) return value;
    fail(fmt::format("'{}', expected a {}number", word.substr(0, 40),
                     element_ == element_type::u64 ? "whole " : ""));
  }

  template <typename Number>
  Number number(std::string_view word) const {
    if (element_ == element_type::u64) return static_cast<Number>(parsed<std::uint64_t>(word));
    return number_of<Number>(parsed<double>(word));
  }

  template <typename Number>
  std::size_t read_as(std::size_t count, Number* out) {
    for (std::size_t row = 0; row < count; ++row) {
      if (!line_waits_ && !next_line()) return row;
      line_waits_ = false;
      read_row(out + row * dimension_);
    }
    return count;
  }

  template <typename Number>
  void read_row(Number* out) {
    std::string_view rest = line_;
    std::size_t found = 0;
    for (std::string_view word = next_word(&rest); !word.empty(); word = next_word(&rest)) {
      if (found < dimension_) out[found] = number<Number>(word);
      ++found;
    }
    if (found != dimension_)
      fail(fmt::format("{} numbers, expected {} as in the first row", found, dimension_));
  }

  const std::unique_ptr<byte_source> source_;
  const element_type element_;
  std::size_t dimension_ = 0;
  std::string buffer_;
  std::size_t next_ = 0, filled_ = 0;  // of the buffer
  std::string line_;
  std::uint64_t line_number_ = 0;
  bool line_waits_ = false;  // line_ was read and not handed out
};

}  // namespace

std::unique_ptr<vector_file> open_text_file(std::unique_ptr<byte_source> source,
                                            element_type element) {
  return std::make_unique<text_file>(std::move(source), element);
}

}  // namespace korvex::cli
