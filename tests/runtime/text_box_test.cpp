#include "runtime/text_box.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "runtime/memory_report.h"
#include "runtime/strings.h"

namespace korvex {
namespace {

// What `print` writes to a file that already holds buffered text.
template <typename Print>
std::string printed_after(const char* buffered, Print print) {
  std::FILE* file = std::tmpfile();
  std::fputs(buffered, file);
  print(file);
  std::rewind(file);
  char text[4096];
  const std::size_t n = std::fread(text, 1, sizeof text, file);
  std::fclose(file);
  return {text, n};
}

TEST(TextBox, FramesWrapsAndCentres) {
  const struct {
    int width;
    std::vector<std::string_view> lines;
    std::string_view expected;
  } rows[] = {
      {12, {}, "+----------+\n+----------+\n"},
      {12,
       {":Title", "-", "ab cd ef gh", "", "-x", "abc de fg"},
       "+----------+\n|  Title   |\n+----------+\n| ab cd ef |\n| gh       |\n|          |\n"
       "| -x       |\n| abc de   |\n| fg       |\n+----------+\n"},
      // A word longer than a row is cut; exactly full rows stay one row.
      {8,
       {"abcdefghij", "abcd efgh"},
       "+------+\n| abcd |\n| efgh |\n| ij   |\n| abcd |\n| efgh |\n+------+\n"},
      // Columns are code points: a dash of three bytes is one.
      {9, {":a – b", "ü–é"}, "+-------+\n| a – b |\n| ü–é   |\n+-------+\n"},
      // Cut, overlong, surrogate and lone bytes, and controls.
      {14,
       {"\xE2\x80", "\xC0\xAF", "\xED\xA0\x80", "\xFFz\x1B\x7F"},
       "+------------+\n| ??         |\n| ??         |\n| ???        |\n| ?z??       "
       "|\n+------------+\n"},
      {-3, {"ab"}, "+---+\n| a |\n| b |\n+---+\n"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(format_text_box(row.lines, row.width), row.expected);
    EXPECT_EQ(
        printed_after("first\n", [&](std::FILE* f) { print_text_box(f, row.lines, row.width); }),
        "first\n" + std::string(row.expected));
  }
  print_text_box(nullptr, rows[0].lines, 80);
}

TEST(MemoryReport, PrintsSizesAndSignedDifferences) {
  constexpr std::uint64_t mb = 1024 * 1024;
  const memory_usage_s before{{10 * mb, 20 * mb, 300 * mb, 300 * mb, 0, 0, 0, 0}};
  const memory_usage_s after{{8 * mb, 20 * mb, 300 * mb + mb / 2, 1301 * mb, 0, 0, 0, 0}};
  EXPECT_EQ(printed_after("", [&](std::FILE* f) { print_memory_usage(f, "now:", after); }),
            "now:\n"
            "  resident             8.0 MB\n  peak resident       20.0 MB\n"
            "  virtual            300.5 MB\n  peak virtual      1301.0 MB\n");
  EXPECT_EQ(
      printed_after(
          "", [&](std::FILE* f) { print_memory_usage_change(f, "after init:", before, after); }),
      "after init:\n"
      "  resident             8.0 MB (-2.0 MB)\n  peak resident       20.0 MB (+0.0 MB)\n"
      "  virtual            300.5 MB (+0.5 MB)\n  peak virtual      1301.0 MB (+1001.0 MB)\n");

  // 16 MB more that were touched must show.
  const memory_usage_s start = take_memory_usage();
  const std::vector<char> touched(16 * mb, 1);
  const memory_usage_s end = take_memory_usage();
  EXPECT_GE(end.v[0], start.v[0] + 12 * mb);
  EXPECT_GE(end.v[1], end.v[0]);
  EXPECT_GE(end.v[3], end.v[2]);
}

TEST(Strings, ThousandsAreSeparated) {
  const struct {
    std::uint64_t number;
    const char* expected;
  } rows[] = {{0, "0"},
              {999, "999"},
              {1000, "1,000"},
              {999'999, "999,999"},
              {1'000'000, "1,000,000"},
              {18'446'744'073'709'551'615u, "18,446,744,073,709,551,615"}};
  for (const auto& row : rows) EXPECT_EQ(with_thousands(row.number), row.expected);
}

}  // namespace
}  // namespace korvex
