#include <algorithm>
#include <cstdint>

#include "cli/readers/hdf5.h"
#include "cli/readers/vector_file.h"
#include "tests/cli/tool_test.h"

namespace korvex::cli {
namespace {

using testing_support::bytes_of;
using testing_support::fvecs;
using testing_support::random_matrix;
using testing_support::ToolTest;

class Convert : public ToolTest {
 protected:
  std::vector<double> numbers(const std::string& name,
                              vector_format format = vector_format::unknown) {
    const auto file = open_vector_file({path(name), format});
    std::vector<double> all;
    std::vector<double> row(file->dimension());
    while (file->read(1, row.data()) == 1) all.insert(all.end(), row.begin(), row.end());
    return all;
  }
};

TEST_F(Convert, EveryFormatLeadsToEveryOtherAndBack) {
  std::string bytes;  // whole numbers fit all formats
  for (int row = 0; row < 37; ++row) {
    bytes += bytes_of(std::int32_t{5});
    for (int i = 0; i < 5; ++i) bytes += static_cast<char>(row * 7 + i * 31);
  }
  write("first.bvecs", bytes);
  const auto expected = numbers("first.bvecs");
  ASSERT_EQ(expected.size(), 37u * 5);
  const std::string names[] = {"a.fvecs", "a.bvecs", "a.ivecs", "a.fbin",
                               "a.u8bin", "a.npy",   "a.txt"};
  for (const std::string& from : names) {
    ASSERT_EQ(run("convert first.bvecs " + from), 0) << err_;
    EXPECT_EQ(numbers(from), expected) << from;
    for (const std::string& to : names) {
      ASSERT_EQ(run("convert " + from + " to-" + to), 0) << from << " to " << to << err_;
      EXPECT_EQ(numbers("to-" + to), expected) << from << " to " << to;
    }
    const std::string format = name_of(format_of_path(from));
    ASSERT_EQ(shell("gzip -c " + from + " | korvex convert - back.fvecs --from " + format), 0)
        << err_;
    EXPECT_EQ(numbers("back.fvecs"), expected) << from;
  }
}

TEST_F(Convert, FloatsAndLargeWholeNumbersKeepTheirBits) {
  write("f.fvecs", fvecs(random_matrix(9, 4, 5)));
  write("i.ivecs", bytes_of(std::int32_t{2}) + bytes_of(std::int32_t{2147483647}) +
                       bytes_of(std::int32_t{-16777217}));
  for (const std::string to : {"npy", "fbin", "txt"}) {
    ASSERT_EQ(run("convert f.fvecs f." + to), 0) << err_;
    ASSERT_EQ(run("convert f." + to + " back.fvecs"), 0) << err_;
    EXPECT_EQ(read_file(path("back.fvecs")), read_file(path("f.fvecs"))) << to;
  }
  for (const std::string to : {"npy", "txt"}) {
    ASSERT_EQ(run("convert i.ivecs i." + to), 0) << err_;
    ASSERT_EQ(run("convert i." + to + " back.ivecs"), 0) << err_;
    EXPECT_EQ(read_file(path("back.ivecs")), read_file(path("i.ivecs"))) << to;
  }
  ASSERT_EQ(run("convert f.fvecs part.fvecs --skip 2 --rows 3"), 0) << err_;
  EXPECT_EQ(read_file(path("part.fvecs")), read_file(path("f.fvecs")).substr(2 * 20, 3 * 20));
}

TEST_F(Convert, WhatDoesNotFitEndsItAndLeavesNothing) {
  write("f.fvecs", fvecs(random_matrix(9, 4, 5)));
  write("cut.fvecs", fvecs(random_matrix(9, 4, 5)).substr(0, 150));
  write("old.ivecs", "kept");
  const struct {
    std::string arguments;
    int code;
    std::string text;
  } cases[] = {{"f.fvecs old.ivecs", 3, "expected a whole number for ivecs"},
               {"f.fvecs new.u8bin", 3, "expected a whole number from 0 to 255 for u8bin"},
               {"cut.fvecs new.npy", 3, "expected a multiple of 20"},
               {"f.fvecs new.idx", 2, "idx is read but not written"},
               {"f.fvecs new.xyz", 2, "does not tell a format"},
               {"f.fvecs missing/new.npy", 4, "missing/new.npy: cannot be written"},
               {"f.fvecs - --to npy --skip 10", 3, "fewer rows than --skip 10"},
               {"- - --from fvecs --to npy < f.fvecs", 2, "begins with the number of rows"}};
  for (const auto& each : cases) {
    EXPECT_EQ(run("convert " + each.arguments), each.code) << each.arguments << err_;
    EXPECT_NE(err_.find(each.text), std::string::npos) << each.arguments << "\n" << err_;
    EXPECT_EQ(out_, "") << each.arguments;
  }
  EXPECT_EQ(read_file(path("old.ivecs")), "kept");
  for (const auto& entry : std::filesystem::directory_iterator(path("")))
    EXPECT_EQ(entry.path().filename().string().find("new"), std::string::npos) << entry.path();
}

#ifdef KORVEX_HAVE_HDF5
// A file as h5py writes it, made by the library's own tools where they are.
TEST_F(Convert, Hdf5CollectionsAreRead) {
  const std::string make =
      "$(command -v /usr/bin/python3 || echo python3) -c \"import h5py, numpy; f = "
      "h5py.File('c.hdf5', 'w'); "
      "f['train'] = numpy.arange(12, dtype='f4').reshape(4, 3) / 2; "
      "f.create_dataset('test', data=numpy.ones((2, 3)), compression='gzip'); "
      "f['neighbors'] = numpy.array([[3, 1], [2, 0]], 'i4'); f['flat'] = numpy.zeros(4); "
      "f.attrs.update(distance='angular', padded=numpy.array(b'jaccard', 'S12'), "
      "two=['a', 'b'], number=3, long=numpy.array(b'x' * 5000))\"";
  if (shell(make) != 0) GTEST_SKIP() << "python3-h5py is not installed";
  ASSERT_EQ(run("convert c.hdf5 - --to text"), 0) << err_;
  EXPECT_EQ(out_, "0 0.5 1\n1.5 2 2.5\n3 3.5 4\n4.5 5 5.5\n");
  ASSERT_EQ(run("convert c.hdf5:test - --to text --rows 1"), 0) << err_;
  EXPECT_EQ(out_, "1 1 1\n");
  EXPECT_EQ(read_id_file({path("c.hdf5"), vector_format::unknown, "neighbors"}, 9).ids,
            (std::vector<std::uint32_t>{3, 1, 2, 0}));
  const auto text = [&](const char* name) { return read_hdf5_text(path("c.hdf5"), name); };
  EXPECT_EQ(text("distance"), "angular");
  EXPECT_EQ(text("padded"), "jaccard");
  for (const char* const none : {"two", "number", "long", "absent"}) EXPECT_EQ(text(none), "");
  EXPECT_EQ(run("convert c.hdf5:none - --to text"), 3);
  EXPECT_NE(err_.find("c.hdf5:none: there is no such data set"), std::string::npos) << err_;
  EXPECT_EQ(run("convert c.hdf5:flat - --to text"), 3);
  EXPECT_NE(err_.find("expected a data set of two axes"), std::string::npos) << err_;
  write("bad.hdf5", read_file(path("c.hdf5")).substr(0, 700));
  EXPECT_EQ(run("convert bad.hdf5 - --to text"), 3) << err_;
  ASSERT_EQ(run("build index c.hdf5"), 0) << err_;
  ASSERT_EQ(run("search index c.hdf5 -k 1 --rows 1"), 0) << err_;
  EXPECT_EQ(out_, "0\t1\t0\t1.25\n");
}
#endif

}  // namespace
}  // namespace korvex::cli
