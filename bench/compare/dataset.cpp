#include "dataset.h"

#include <zlib.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

namespace korvex::compare {

namespace {

static_assert(std::endian::native == std::endian::little, "the files read here are little-endian");

constexpr std::uint64_t largest_dimension = 1u << 20;

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
  throw std::runtime_error(path + ": " + why);
}

std::string counted(const matrix& base) {
  return std::to_string(base.rows) + " x " + std::to_string(base.dimension);
}

struct gz_closer {
  void operator()(gzFile_s* file) const { gzclose(file); }
};

std::uint32_t big_endian(const unsigned char* bytes) {
  return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
         std::uint32_t{bytes[2]} << 8 | bytes[3];
}

// Pictures of the MNIST layout: magic 2051, count, height, width, all big-endian, then a byte a pixel.
matrix read_pictures(const std::string& path, std::size_t most) {
  constexpr std::uint32_t picture_magic = 2051;
  const std::unique_ptr<gzFile_s, gz_closer> file(gzopen(path.c_str(), "rb"));
  unsigned char header[16];
  if (!file) refuse(path, "cannot be opened (Debian: dataset-fashion-mnist)");
  if (gzread(file.get(), header, sizeof header) != sizeof header ||
      big_endian(header) != picture_magic)
    refuse(path, "is not a file of pictures");
  matrix made;
  made.rows = std::min<std::size_t>(big_endian(header + 4), most);
  made.dimension = std::size_t{big_endian(header + 8)} * big_endian(header + 12);
  if (made.dimension == 0 || made.dimension > largest_dimension)
    refuse(path, "holds pictures of a wrong size");
  std::vector<unsigned char> picture(made.dimension);
  made.values.reserve(made.rows * made.dimension);
  for (std::size_t row = 0; row < made.rows; ++row) {
    if (gzread(file.get(), picture.data(), static_cast<unsigned>(made.dimension)) !=
        static_cast<int>(made.dimension))
      refuse(path, "ends early");
    made.values.insert(made.values.end(), picture.begin(), picture.end());
  }
  return made;
}

std::ifstream open_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) refuse(path, "cannot be opened");
  return file;
}

// Each row: its dimension as a 32-bit number, then the floats.
matrix read_fvecs(const std::string& path, std::size_t most) {
  std::ifstream file = open_file(path);
  matrix made;
  std::uint32_t dimension = 0;
  while (made.rows < most && file.read(reinterpret_cast<char*>(&dimension), sizeof dimension)) {
    if (made.rows == 0) made.dimension = dimension;
    if (dimension == 0 || dimension > largest_dimension || dimension != made.dimension)
      refuse(path,
             "row " + std::to_string(made.rows) + " has dimension " + std::to_string(dimension));
    made.values.resize((made.rows + 1) * made.dimension);
    if (!file.read(reinterpret_cast<char*>(made.row(made.rows)),
                   static_cast<std::streamsize>(dimension * sizeof(float))))
      refuse(path, "ends early");
    ++made.rows;
  }
  return made;
}

// The text behind `key` in the header of a .npy file, or an empty one.
std::string value_of(const std::string& header, const std::string& key) {
  const std::size_t at = header.find("'" + key + "':");
  if (at == std::string::npos) return {};
  const std::size_t begin = header.find_first_not_of(' ', at + key.size() + 3);
  return begin == std::string::npos ? std::string() : header.substr(begin);
}

std::string read_npy_header(const std::string& path, std::ifstream& file) {
  char start[8];
  if (!file.read(start, sizeof start) || std::memcmp(start, "\x93NUMPY", 6) != 0)
    refuse(path, "is not a .npy file");
  std::uint32_t length = 0;
  file.read(reinterpret_cast<char*>(&length), start[6] == 1 ? 2 : 4);
  if (!file || length > 65'536) refuse(path, "has a damaged header");
  std::string header(length, ' ');
  if (!file.read(header.data(), static_cast<std::streamsize>(length)))
    refuse(path, "has a damaged header");
  return header;
}

matrix read_npy(const std::string& path, std::size_t most) {
  std::ifstream file = open_file(path);
  const std::string header = read_npy_header(path, file);
  unsigned long long rows = 0;
  unsigned long long columns = 0;
  if (!value_of(header, "descr").starts_with("'<f4'") ||
      !value_of(header, "fortran_order").starts_with("False") ||
      std::sscanf(value_of(header, "shape").c_str(), "(%llu, %llu)", &rows, &columns) != 2 ||
      columns == 0 || columns > largest_dimension)
    refuse(path, "must hold a two-dimensional array of little-endian float32 in C order");
  matrix made;
  made.rows = std::min<std::size_t>(rows, most);
  made.dimension = columns;
  if (made.rows > std::filesystem::file_size(path) / (columns * sizeof(float)))
    refuse(path, "ends early");
  made.values.resize(made.rows * made.dimension);
  if (!file.read(reinterpret_cast<char*>(made.values.data()),
                 static_cast<std::streamsize>(made.values.size() * sizeof(float))))
    refuse(path, "ends early");
  return made;
}

matrix read_vectors(const std::string& path, std::size_t most) {
  const std::string extension = std::filesystem::path(path).extension().string();
  if (extension == ".fvecs") return read_fvecs(path, most);
  if (extension == ".npy") return read_npy(path, most);
  refuse(path, "is neither .fvecs nor .npy");
}

matrix take_last_rows(matrix& from, std::size_t count) {
  const std::size_t kept = from.rows - count;
  matrix taken{count,
               from.dimension,
               {from.values.begin() + static_cast<std::ptrdiff_t>(kept * from.dimension),
                from.values.end()}};
  from.rows = kept;
  from.values.resize(kept * from.dimension);
  return taken;
}

}  // namespace

dataset load_fashion(const std::string& directory, std::size_t n_points, std::size_t n_queries) {
  dataset loaded;
  loaded.base = read_pictures(directory + "/train-images-idx3-ubyte.gz", n_points);
  loaded.queries = read_pictures(directory + "/t10k-images-idx3-ubyte.gz", n_queries);
  loaded.recipe = "Fashion-MNIST, training pictures, test pictures as queries";
  return loaded;
}

dataset load_files(const std::string& base, const std::string& queries, std::size_t n_points,
                   std::size_t n_queries) {
  dataset loaded;
  const std::size_t split_off = queries.empty() ? n_queries : 0;
  loaded.base = read_vectors(base, n_points + std::min(split_off, ~n_points));
  if (loaded.base.rows <= split_off) refuse(base, "has only " + counted(loaded.base));
  loaded.queries =
      queries.empty() ? take_last_rows(loaded.base, split_off) : read_vectors(queries, n_queries);
  if (loaded.queries.rows == 0 || loaded.queries.dimension != loaded.base.dimension)
    refuse(queries, "has dimension " + std::to_string(loaded.queries.dimension) + ", the base " +
                        std::to_string(loaded.base.dimension));
  loaded.recipe = "file " + std::filesystem::path(base).filename().string();
  return loaded;
}

}  // namespace korvex::compare
