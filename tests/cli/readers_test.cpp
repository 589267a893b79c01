#include <functional>
#include <random>
#include <vector>

#include "cli/readers/vector_file.h"
#include "tests/cli/scratch_directory.h"

namespace korvex::cli {
namespace {

using testing_support::bytes_of;
using testing_support::ScratchDirectory;

constexpr auto big = std::endian::big;
constexpr auto little = std::endian::little;

// Four rows of six small whole numbers, which every element type holds exactly.
constexpr std::size_t n_rows = 4;
constexpr std::size_t n_columns = 6;
float value_at(std::size_t row, std::size_t column) {
  return static_cast<float>((row * 31 + column * 7) % 120);
}

template <typename Element>
std::string elements(std::endian order, bool prefixed = false) {
  std::string bytes;
  for (std::size_t row = 0; row < n_rows; ++row) {
    if (prefixed) bytes += bytes_of<std::int32_t>(n_columns);
    for (std::size_t column = 0; column < n_columns; ++column)
      bytes += bytes_of(static_cast<Element>(value_at(row, column)), order);
  }
  return bytes;
}

std::string idx_header(int type, const std::vector<std::uint32_t>& axes) {
  std::string bytes{'\0', '\0', static_cast<char>(type), static_cast<char>(axes.size())};
  for (const std::uint32_t axis : axes) bytes += bytes_of(axis, big);
  return bytes;
}

std::string npy(int version, const std::string& dictionary, const std::string& body = "") {
  const auto length = static_cast<std::uint32_t>(dictionary.size());
  return std::string("\x93NUMPY") + static_cast<char>(version) + '\0' +
         (version == 1 ? bytes_of(static_cast<std::uint16_t>(length)) : bytes_of(length)) +
         dictionary + body;
}

std::string npy_of(const std::string& type, const std::string& body) {
  return npy(1, "{'descr': '" + type + "', 'fortran_order': False, 'shape': (4, 6), }          \n",
             body);
}

struct sound_file {
  std::string name, bytes;
  std::size_t header_bytes;
  bool any_length;  // whole rows may be missing at the end
};

std::vector<sound_file> sound_files() {
  std::vector<sound_file> files = {
      {"a.fvecs", elements<float>(little, true), 4, true},
      {"a.bvecs", elements<std::uint8_t>(little, true), 4, true},
      {"a.fbin", bytes_of(4) + bytes_of(6) + elements<float>(little), 8, false},
      {"a.u8bin", bytes_of(4) + bytes_of(6) + elements<std::uint8_t>(little), 8, false},
      {"a-idx2-ubyte", idx_header(0x08, {4, 6}) + elements<std::uint8_t>(big), 12, false},
      {"a-idx3-ubyte", idx_header(0x08, {4, 2, 3}) + elements<std::uint8_t>(big), 16, false},
      {"signed.idx", idx_header(0x09, {4, 6}) + elements<std::int8_t>(big), 12, false},
      {"short.idx", idx_header(0x0B, {4, 6}) + elements<std::int16_t>(big), 12, false},
      {"int.idx", idx_header(0x0C, {4, 6}) + elements<std::int32_t>(big), 12, false},
      {"float.idx", idx_header(0x0D, {4, 6}) + elements<float>(big), 12, false},
      {"double.idx", idx_header(0x0E, {4, 6}) + elements<double>(big), 12, false},
      {"u1.npy", npy_of("|u1", elements<std::uint8_t>(little)), 80, false},
      {"i1.npy", npy_of("|i1", elements<std::int8_t>(little)), 80, false},
      {"u2.npy", npy_of("<u2", elements<std::uint16_t>(little)), 80, false},
      {"i2.npy", npy_of(">i2", elements<std::int16_t>(big)), 80, false},
      {"u4.npy", npy_of("<u4", elements<std::uint32_t>(little)), 80, false},
      {"f4.npy", npy_of("<f4", elements<float>(little)), 80, false},
      {"i8.npy", npy_of("<i8", elements<std::int64_t>(little)), 80, false},
      {"f8.npy", npy_of(">f8", elements<double>(big)), 80, false},
      {"by-its-bytes", npy_of("<f4", elements<float>(little)), 80, false},
      {"version-2.npy",
       npy(2, "{'shape':(4,2,3),'fortran_order':False,'descr':'<f4'}", elements<float>(little)), 65,
       false}};
  for (std::size_t i = files.size(); i-- > 0;) {
    files.push_back(files[i]);
    files.back().name += ".gz";
  }
  return files;
}

struct contents {
  std::size_t dimension = 0;
  std::vector<float> values;
};

contents rest_of(vector_file& file, std::size_t rows_a_call = 3) {
  contents all;
  all.dimension = file.dimension();
  for (;;) {
    const std::size_t before = all.values.size();
    all.values.resize(before + rows_a_call * all.dimension);
    const std::size_t got = file.read(rows_a_call, all.values.data() + before);
    all.values.resize(before + got * all.dimension);
    if (got < rows_a_call) return all;
  }
}

contents read_all(const std::string& path, std::size_t rows_a_call = 3) {
  return rest_of(*open_vector_file({path}), rows_a_call);
}

// The text of the error; empty when there was none.
std::string error_of(const std::function<void()>& action) {
  try {
    action();
    return {};
  } catch (const file_error& error) {
    return error.what();
  }
}

using Readers = ScratchDirectory;

TEST_F(Readers, EveryFormatHandsBackItsRowsWhateverTheStep) {
  for (const sound_file& sound : sound_files()) {
    const std::string file = write(sound.name, sound.bytes);
    for (const std::size_t step : {std::size_t{1}, std::size_t{3}, n_rows, std::size_t{100}}) {
      SCOPED_TRACE(sound.name + " by " + std::to_string(step));
      const contents all = read_all(file, step);
      ASSERT_EQ(all.dimension, n_columns);
      ASSERT_EQ(all.values.size(), n_rows * n_columns);
      for (std::size_t i = 0; i < all.values.size(); ++i)
        ASSERT_EQ(all.values[i], value_at(i / n_columns, i % n_columns)) << i;
    }
    const bool open_end = sound.any_length && sound.name.ends_with(".gz");
    EXPECT_EQ(open_vector_file({file})->rows().value_or(0), open_end ? 0 : n_rows) << sound.name;
  }
}

TEST_F(Readers, AFileThatIsTooShortOrTooLongIsRefused) {
  for (const sound_file& sound : sound_files()) {
    const std::size_t row = sound.any_length ? sound.bytes.size() / n_rows : sound.bytes.size();
    // Every length of the header, then some.
    for (std::size_t length = 0; length < sound.bytes.size();
         length += length < sound.header_bytes ? 1 : 11) {
      if (length > 0 && length % row == 0) continue;
      const std::string file = write(sound.name, sound.bytes.substr(0, length));
      const std::string error = error_of([&] { read_all(file); });
      ASSERT_TRUE(error.starts_with(file + ": ")) << length << " bytes: " << error;
    }
    const std::string file = write(sound.name, sound.bytes + "x");
    EXPECT_NE(error_of([&] { read_all(file); }), "") << sound.name;
  }
}

TEST_F(Readers, DamagedCompressionIsRefused) {
  const std::string packed = read_file(write("a.fvecs.gz", elements<float>(little, true)));
  for (std::size_t length = 2; length < packed.size(); ++length) {
    const std::string file = write_plain("cut.fvecs.gz", packed.substr(0, length));
    ASSERT_NE(error_of([&] { read_all(file); }), "") << length;
  }
  std::string changed = packed;
  changed[changed.size() - 8] ^= 1;  // the checksum
  const std::string file = write_plain("changed.fvecs.gz", changed);
  EXPECT_NE(error_of([&] { read_all(file); }).find("damaged"), std::string::npos);
}

TEST_F(Readers, HostileHeadersAreRefusedWithWhatWasFoundAndExpected) {
  const std::string end = ", 'fortran_order': False, 'shape': (4, 6), }";
  const auto with_shape = [](const std::string& shape) {
    return npy(1, "{'descr': '<f4', 'fortran_order': False, 'shape': " + shape + "}");
  };
  const struct {
    std::string name, bytes, error;
  } cases[] = {
      {"zero.fvecs", bytes_of(0), "dimension 0, expected 1 to 1048576"},
      {"negative.fvecs", bytes_of(-1), "dimension 4294967295, expected 1 to 1048576"},
      {"huge.bvecs", bytes_of(1048577), "dimension 1048577"},
      {"other.bvecs", bytes_of(2) + "ab" + bytes_of(3) + "ab", "row 1 has dimension 3, expected 2"},
      {"none.fbin", bytes_of(0) + bytes_of(6), "0 rows, expected 1"},
      {"cut.u8bin", bytes_of(4), "ends inside the header: found 4 of 8 bytes"},
      {"claim.fbin", bytes_of(-2) + bytes_of(1048576),
       "expected 18014398501093384 for 4294967294 rows of 4194304 bytes"},
      {"word.txt", "1 2\n1 x\n", "line 2: 'x', expected a number"},
      {"short.csv", "# two\n\n1,2\n1\n", "line 4: 1 numbers, expected 2 as in the first row"},
      {"blank.txt", " \n# nothing\n", "the text is empty"},
      {"type.idx", idx_header(0x0A, {1, 1}) + "a", "element type 0x0a"},
      {"axis.idx", idx_header(0x08, {1}) + "a", "1 axes, expected 2 to 8"},
      {"axes.idx", idx_header(0x08, std::vector<std::uint32_t>(255, 1)) + "a", "255 axes"},
      {"none.idx", idx_header(0x08, {0, 1}), "0 rows, expected 1"},
      {"flat.idx", idx_header(0x08, {1, 0}), "dimension 0 after axis 1"},
      {"wide.idx", idx_header(0x08, {1, 1048576, 2}), "dimension 2097152 after axis 2"},
      {"wrap.idx", idx_header(0x08, {1, 65536, 65536, 65536, 65536}), "dimension 4294967296"},
      {"rows.idx", idx_header(0x08, {0xFFFFFFFFu, 1}), "4294967295 rows, expected 1 to 4294967294"},
      {"claim.idx", idx_header(0x0E, {0xFFFFFFFEu, 1048576}) + "abc",
       "expected 36028797002186764 for 4294967294 rows of 8388608 bytes"},
      {"magic.npy", "\x93NUMPX", "ends inside the npy header"},
      {"magic2.npy", "\x93NUMPX\x01pppppppp", "wrong magic"},
      {"version.npy", npy(4, "{}"), "npy version 4, expected 1 to 3"},
      {"length.npy", std::string("\x93NUMPY\x02\0\xff\xff\xff\xff", 12), "4294967295 bytes"},
      {"empty.npy", npy(1, ""), "found the end, expected '{'"},
      {"keys.npy", npy(1, "{}"), "no key 'descr'"},
      {"twice.npy", npy(1, "{'descr': '<f4', 'descr': '<f4'}"), "the key 'descr' twice"},
      {"open.npy", npy(1, "{'descr': '<f4"), "a string without end"},
      {"behind.npy", npy(1, "{'descr': '<f4'} x"), "text behind the dictionary"},
      {"text.npy", npy(1, "{'descr': '<U8'" + end), "element type '<U8', expected"},
      {"order.npy", npy(1, "{'descr': '|f4'" + end), "element type '|f4', expected"},
      {"none.npy", npy(1, "{'descr': ''" + end), "element type '', expected"},
      {"fields.npy", npy(1, "{'descr': [('a', '<f4')]" + end), "npy header"},
      {"columns.npy", npy(1, "{'descr': '<f4', 'fortran_order': True, 'shape': (4, 6)}"),
       "fortran_order True, expected False"},
      {"vector.npy", with_shape("(24,)"), "expected rows and columns"},
      {"scalar.npy", with_shape("()"), "expected rows and columns"},
      {"list.npy", with_shape("[4"), "no tuple"},
      {"minus.npy", with_shape("(4, -6)"), "something that is no length"},
      {"digits.npy", with_shape("(4, 99999999999999999999)"), "something that is no length"},
      {"zero.npy", with_shape("(4, 0)"), "expected 1 to 1048576 elements a row"},
      {"wrap.npy", with_shape("(1, 1048576, 1048576, 1048576, 65536)"), "elements a row"},
      {"rows.npy", with_shape("(999999999999999, 1)"), "999999999999999 rows"},
      {"claim.npy", with_shape("(4294967294, 1048576)"), "for 4294967294 rows of 4194304 bytes"},
      {"unknown", "hello world", "expected an idx or npy header"}};
  for (const auto& hostile : cases) {
    for (const char* ending : {"", ".gz"}) {
      const std::string file = write(hostile.name + ending, hostile.bytes);
      const std::string error = error_of([&] { read_all(file); });
      EXPECT_TRUE(error.starts_with(file + ": ")) << error;
      EXPECT_NE(error.find(hostile.error), std::string::npos) << error;
    }
  }
}

// Whatever stands in a header, a reader hands back what the file holds or throws.
TEST_F(Readers, NoChangeOfAHeaderIsBelieved) {
  constexpr unsigned seed = 7;
  std::mt19937 random(seed);
  for (const sound_file& sound : sound_files()) {
    if (sound.name.ends_with(".gz") || sound.name.starts_with("u") || sound.name.starts_with("i"))
      continue;  // the same parsers as others'
    for (std::size_t at = 0; at < sound.header_bytes; ++at) {
      for (const int byte : {0x00, 0x7f, 0xff, static_cast<int>(random() % 256)}) {
        std::string changed = sound.bytes;
        changed[at] = static_cast<char>(byte);
        const std::string file = write(sound.name, changed);
        const std::string error = error_of([&] {
          const contents all = read_all(file);
          ASSERT_LE(all.values.size(), changed.size());
          ASSERT_GE(all.values.size(), n_rows);
        });
        ASSERT_TRUE(error.empty() || error.starts_with(file + ": ")) << error;
        // The same bytes in memory, where an over-read is seen.
        const std::vector<char> exact(changed.begin(), changed.end());
        const std::string in_memory = error_of([&] {
          rest_of(*open_vector_bytes(file, {exact.data(), exact.size()}, format_of_path(file)));
        });
        ASSERT_EQ(in_memory, error);
      }
    }
  }
}

TEST_F(Readers, IdFilesKeepEveryBitAndRefuseNegativeIds) {
  const std::string row = bytes_of(2) + bytes_of(16777217) + bytes_of(0x7FFFFFFF);
  for (const char* name : {"t.ivecs", "t.ivecs.gz"}) {
    const id_rows file = read_id_file({write(name, row + row + row)}, 2);
    EXPECT_EQ(file.rows, 2u);
    EXPECT_EQ(file.width, 2u);
    EXPECT_EQ(file.ids, (std::vector<std::uint32_t>{16777217, 0x7FFFFFFF, 16777217, 0x7FFFFFFF}));
  }
  const std::string negative = write("t.ivecs", row + bytes_of(2) + bytes_of(0) + bytes_of(-1));
  EXPECT_NE(error_of([&] { read_id_file({negative}, 9); }).find("row 1 holds the id -1"),
            std::string::npos);
  EXPECT_NE(error_of([&] { read_id_file({write("t.fvecs", row)}, 9); }), "");
}

TEST_F(Readers, TextTakesWhatProgramsWrite) {
  const std::string file = write("a.csv.gz", "# x, y, z\r\n1, 2.5,-3e2\r\n\n  4\t5;6 \n7 8 9");
  const contents all = read_all(file);
  EXPECT_EQ(all.dimension, 3u);
  EXPECT_EQ(all.values, (std::vector<float>{1, 2.5f, -300, 4, 5, 6, 7, 8, 9}));
}

TEST_F(Readers, OnlyRegularFilesAreOpened) {
  std::filesystem::create_directories(path("folder.fvecs"));
  EXPECT_NE(error_of([&] { read_all(path("folder.fvecs")); }).find("not a regular file"),
            std::string::npos);
  EXPECT_NE(error_of([&] { read_all(path("missing.npy")); }).find("no such file"),
            std::string::npos);
}

}  // namespace
}  // namespace korvex::cli
