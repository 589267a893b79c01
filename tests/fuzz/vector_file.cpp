#include "cli/readers/vector_file.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/target.h"

// What the tool reads: the first byte of an input chooses the format, the next one how rows are
// read; the rest is the file, or for HDF5 damage to a sound one.
namespace korvex::fuzz {
namespace {

using cli::vector_format;

constexpr vector_format formats[] = {
    vector_format::unknown, vector_format::fvecs, vector_format::bvecs, vector_format::ivecs,
    vector_format::fbin,    vector_format::u8bin, vector_format::npy,   vector_format::idx,
    vector_format::text,    vector_format::hdf5};
// A few bytes of gzip are allowed to become many rows; more of them teach nothing.
constexpr std::size_t most_values = 1u << 16;

// The file as it is promised: rows of one width, no more of them than the file announced, and the
// end where it was announced.
template <class Value>
void read_all(cli::vector_file* file, std::size_t rows_a_call) {
  const std::size_t dimension = file->dimension();
  KORVEX_FUZZ_CHECK(dimension >= 1 && dimension <= cli::largest_dimension);
  rows_a_call = std::clamp<std::size_t>(most_values / dimension, 1, rows_a_call);
  std::vector<Value> rows(rows_a_call * dimension);
  std::uint64_t total = 0;
  while (total * dimension < most_values) {
    const std::size_t count = file->read(rows_a_call, rows.data());
    KORVEX_FUZZ_CHECK(count <= rows_a_call);
    total += count;
    if (file->rows()) KORVEX_FUZZ_CHECK(total <= *file->rows());
    if (count == rows_a_call) continue;
    if (file->rows()) KORVEX_FUZZ_CHECK(total == *file->rows());
    return;
  }
}

void read_as(std::unique_ptr<cli::vector_file> file, std::uint8_t how) {
  const std::size_t rows_a_call = 1 + how / 3 % 8;
  if (how % 3 == 0) read_all<float>(file.get(), rows_a_call);
  if (how % 3 == 1) read_all<double>(file.get(), rows_a_call);
  if (how % 3 == 2) read_all<std::int64_t>(file.get(), rows_a_call);
}

void put_sound_file(const workshop& made) {
  std::ifstream from(KORVEX_FUZZ_HDF5, std::ios::binary);
  KORVEX_FUZZ_CHECK(from.good());
  std::ofstream(made.path() + "/rows.hdf5", std::ios::binary) << from.rdbuf();
}

std::unique_ptr<cli::vector_file> open_damaged(input* in) {
  static const workshop shop("vector_file", put_sound_file);
  shop.lay_out(in);
  return cli::open_vector_file({shop.path() + "/rows.hdf5"});
}

}  // namespace

void vector_file(const std::uint8_t* data, std::size_t size) {
  input in(data, size);
  const vector_format format = formats[in.number<std::uint8_t>() % std::size(formats)];
  const auto how = in.number<std::uint8_t>();
  const std::string bytes = format == vector_format::hdf5 ? "" : in.bytes(size);
  try {
    read_as(format == vector_format::hdf5 ? open_damaged(&in)
                                          : cli::open_vector_bytes("input", bytes, format),
            how);
  } catch (const cli::file_error& refused) {
    KORVEX_FUZZ_CHECK(refused.what()[0] != '\0');
  }
}

}  // namespace korvex::fuzz
