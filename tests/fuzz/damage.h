#ifndef KORVEX_TESTS_FUZZ_DAMAGE_H
#define KORVEX_TESTS_FUZZ_DAMAGE_H

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/input.h"

// Sound files, kept in memory, and what an input does to copies of them: an input is a list of
// changes, so that a fuzzer begins with files that are accepted and a byte of it reaches any field.
namespace korvex::fuzz {

// One file of the sound state.
struct file_image {
  std::string name;
  std::uint64_t length = 0;
  std::string content;  // its beginning, up to the last byte that is not zero
};

// All files of a directory, by name.
std::vector<file_image> take_images(const std::string& directory);

// Writes the files into a directory, which is emptied first.
void put_images(const std::vector<file_image>& images, const std::string& directory);

// Applies the changes of the input to the files in the directory. Each begins with a byte:
// kind + 8 x number of the file. Positions count within the content of the file, or beyond it by a
// little.
//   0-2  u16 position, u8 count, bytes   overwrites bytes
//   3    u16 position, u8 which          overwrites a word of 8 bytes with an extreme number
//   4    u16 position, u8 which          the same with 4 bytes
//   5    u24 length                      cuts or extends the file
//   6    u16 from, u16 to, u8 count      copies bytes
//   7    u8 what                         removes, empties, replaces the file by a directory or by
//                                        another file
void apply_damage(input* in, const std::vector<file_image>& images, const std::string& directory);

// The first bytes of a file; "" when it is not there, or not a file.
std::string beginning_of(const std::string& path, std::size_t most = 1 << 16);

// Ends the process: an oracle found something that must not be.
#define KORVEX_FUZZ_CHECK(condition)                                        \
  do {                                                                      \
    if (!(condition)) ::korvex::fuzz::fail(__FILE__, __LINE__, #condition); \
  } while (false)
[[noreturn]] void fail(const char* file, int line, const char* what);

}  // namespace korvex::fuzz

#endif  // KORVEX_TESTS_FUZZ_DAMAGE_H
