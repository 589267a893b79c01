#include "cli/readers/hdf5.h"

#ifdef KORVEX_HAVE_HDF5
#include <fmt/format.h>
#include <hdf5.h>

#include <algorithm>
#include <utility>
#endif

namespace korvex::cli {

#ifdef KORVEX_HAVE_HDF5

namespace {

constexpr std::size_t most_text_bytes = 4096;

// Something of the HDF5 library that wants to be closed.
class handle {
 public:
  handle(hid_t id, herr_t (*close)(hid_t)) : id_(id), close_(close) {}
  ~handle() {
    if (id_ >= 0) close_(id_);
  }
  handle(const handle&) = delete;
  handle& operator=(const handle&) = delete;
  operator hid_t() const { return id_; }
  bool ok() const { return id_ >= 0; }

 private:
  const hid_t id_;
  herr_t (*const close_)(hid_t);
};

hid_t opened(const std::string& path) {
  const byte_source regular(path);  // says why a file cannot be read, better than the library does
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  return H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
}

class hdf5_file final : public vector_file {
 public:
  hdf5_file(const std::string& path, const std::string& dataset)
      : path_(path),
        name_(dataset),
        file_(opened(path), H5Fclose),
        set_(file_.ok() ? H5Dopen2(file_, dataset.c_str(), H5P_DEFAULT) : -1, H5Dclose) {
    if (!file_.ok()) throw file_error(path_, "not an HDF5 file");
    if (!set_.ok()) fail("there is no such data set");
    read_shape();
    read_type();
  }

  std::size_t dimension() const override { return dimension_; }
  std::optional<std::uint64_t> rows() const override { return rows_; }
  element_type element() const override { return type_; }
  std::size_t read(std::size_t count, float* out) override {
    return read_as(count, H5T_NATIVE_FLOAT, out);
  }
  std::size_t read(std::size_t count, double* out) override {
    return read_as(count, H5T_NATIVE_DOUBLE, out);
  }
  std::size_t read(std::size_t count, std::int64_t* out) override {
    return read_as(count, H5T_NATIVE_INT64, out);
  }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw file_error(path_ + ":" + name_, what);
  }

  void read_shape() {
    const handle space(H5Dget_space(set_), H5Sclose);
    hsize_t axes[2] = {};
    if (!space.ok() || H5Sget_simple_extent_ndims(space) != 2 ||
        H5Sget_simple_extent_dims(space, axes, nullptr) != 2)
      fail("expected a data set of two axes, rows and columns");
    if (axes[0] < 1 || axes[0] > most_rows)
      fail(fmt::format("{} rows, expected 1 to {}", axes[0], most_rows));
    if (axes[1] < 1 || axes[1] > largest_dimension)
      fail(fmt::format("dimension {}, expected 1 to {}", axes[1], largest_dimension));
    rows_ = axes[0];
    dimension_ = static_cast<std::size_t>(axes[1]);
  }

  void read_type() {
    const handle type(H5Dget_type(set_), H5Tclose);
    const H5T_class_t kind = H5Tget_class(type);
    if (kind != H5T_FLOAT && kind != H5T_INTEGER) fail("expected a data set of numbers");
    const std::size_t bytes = H5Tget_size(type);
    if (kind == H5T_FLOAT)
      type_ = bytes <= 4 ? element_type::f32 : element_type::f64;
    else if (bytes == 1 && H5Tget_sign(type) == H5T_SGN_NONE)
      type_ = element_type::u8;
    else
      type_ = bytes <= 4 ? element_type::i32 : element_type::i64;
  }

  template <typename Number>
  std::size_t read_as(std::size_t count, hid_t memory_type, Number* out) {
    const hsize_t start[2] = {next_, 0};
    const hsize_t size[2] = {std::min<hsize_t>(count, rows_ - next_), dimension_};
    if (size[0] == 0) return 0;
    const handle from(H5Dget_space(set_), H5Sclose);
    const handle to(H5Screate_simple(2, size, nullptr), H5Sclose);
    if (H5Sselect_hyperslab(from, H5S_SELECT_SET, start, nullptr, size, nullptr) < 0 ||
        H5Dread(set_, memory_type, to, from, H5P_DEFAULT, out) < 0)
      fail(fmt::format("the rows from {} on cannot be read", next_));
    next_ += size[0];
    return static_cast<std::size_t>(size[0]);
  }

  const std::string path_, name_;
  const handle file_;
  const handle set_;
  std::uint64_t rows_ = 0;
  std::size_t dimension_ = 0;
  element_type type_ = element_type::f32;
  hsize_t next_ = 0;
};

// As the library stores it where the length is part of the file, else as it hands it out.
std::string text_of(hid_t attribute, hid_t type) {
  if (H5Tis_variable_str(type) > 0) {
    char* text = nullptr;
    if (H5Aread(attribute, type, &text) < 0 || text == nullptr) return {};
    const std::string copy = text;
    H5free_memory(text);
    return copy;
  }
  const std::size_t length = H5Tget_size(type);
  if (length == 0 || length > most_text_bytes) return {};
  std::string text(length, '\0');
  if (H5Aread(attribute, type, text.data()) < 0) return {};
  return text.substr(0, text.find('\0'));
}

}  // namespace

std::unique_ptr<vector_file> open_hdf5_file(const std::string& path, const std::string& dataset) {
  return std::make_unique<hdf5_file>(path, dataset);
}

std::string read_hdf5_text(const std::string& path, const std::string& name) {
  const handle file(opened(path), H5Fclose);
  if (!file.ok()) throw file_error(path, "not an HDF5 file");
  const handle attribute(H5Aopen(file, name.c_str(), H5P_DEFAULT), H5Aclose);
  if (!attribute.ok()) return {};
  const handle space(H5Aget_space(attribute), H5Sclose);
  const handle type(H5Aget_type(attribute), H5Tclose);
  if (!space.ok() || !type.ok() || H5Sget_simple_extent_npoints(space) != 1 ||
      H5Tget_class(type) != H5T_STRING)
    return {};
  return text_of(attribute, type);
}

#else

namespace {

[[noreturn]] void refuse_hdf5(const std::string& path) {
  throw file_error(path, "HDF5 files are not read by this build; it was made without libhdf5");
}

}  // namespace

std::unique_ptr<vector_file> open_hdf5_file(const std::string& path, const std::string&) {
  refuse_hdf5(path);
}

std::string read_hdf5_text(const std::string& path, const std::string&) {
  refuse_hdf5(path);
}

#endif

}  // namespace korvex::cli
