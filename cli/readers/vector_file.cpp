#include "cli/readers/vector_file.h"

#include <fmt/format.h>

#include <algorithm>

#include "cli/readers/hdf5.h"
#include "cli/readers/row_layout.h"
#include "cli/readers/text.h"

namespace korvex::cli {

namespace {

constexpr std::size_t chunk_bytes = 1u << 20;

class layout_file final : public vector_file {
 public:
  layout_file(std::unique_ptr<byte_source> source, const row_layout& layout)
      : source_(std::move(source)),
        layout_(layout),
        reader_(*source_, layout),
        row_elements_(layout.dimension) {}

  std::size_t dimension() const override { return row_elements_; }
  std::optional<std::uint64_t> rows() const override { return layout_.rows; }
  element_type element() const override { return layout_.type; }
  std::size_t read(std::size_t count, float* out) override { return read_as(count, out); }
  std::size_t read(std::size_t count, double* out) override { return read_as(count, out); }
  std::size_t read(std::size_t count, std::int64_t* out) override { return read_as(count, out); }

 private:
  template <typename Number>
  std::size_t read_as(std::size_t count, Number* out) {
    const std::size_t raw_row = row_elements_ * element_bytes(layout_.type);
    const std::size_t chunk = std::max<std::size_t>(chunk_bytes / raw_row, 1);
    raw_.resize(std::min(chunk, std::max<std::size_t>(count, 1)) * raw_row);
    std::size_t done = 0;
    while (done < count) {
      const std::size_t wanted = std::min(chunk, count - done);
      const std::size_t got = reader_.read(wanted, raw_.data());
      convert_elements(raw_.data(), got * row_elements_, layout_.type, layout_.order,
                       out + done * row_elements_);
      done += got;
      if (got < wanted) break;
    }
    return done;
  }

  const std::unique_ptr<byte_source> source_;
  const row_layout layout_;
  row_reader reader_;
  const std::size_t row_elements_;
  std::vector<unsigned char> raw_;
};

vector_format format_of_bytes(byte_source& source) {
  const auto first = source.peek();
  if (first[0] == 0x93) return vector_format::npy;
  if (first[0] == 0 && first[1] == 0) return vector_format::idx;
  source.fail(
      fmt::format("begins with bytes {:02x} {:02x}, expected an idx or npy header, or a name "
                  "that ends in .fvecs, .bvecs, .ivecs, .fbin, .u8bin, .npy, .hdf5, .txt or .csv, "
                  "or --format",
                  first[0], first[1]));
}

std::unique_ptr<vector_file> open_source(std::unique_ptr<byte_source> source,
                                         vector_format format) {
  const auto with = [&source](const row_layout& layout) {
    return std::make_unique<layout_file>(std::move(source), layout);
  };
  switch (format) {
    case vector_format::fvecs:
      return with(parse_vecs(*source, element_type::f32));
    case vector_format::bvecs:
      return with(parse_vecs(*source, element_type::u8));
    case vector_format::ivecs:
      return with(parse_vecs(*source, element_type::i32));
    case vector_format::fbin:
      return with(parse_bin(*source, element_type::f32));
    case vector_format::u8bin:
      return with(parse_bin(*source, element_type::u8));
    case vector_format::npy:
      return with(parse_npy(*source));
    case vector_format::idx:
      return with(parse_idx(*source));
    case vector_format::text:
      return open_text_file(std::move(source));
    case vector_format::hdf5:
      source->fail("HDF5 is read from regular files only");
    case vector_format::unknown:
      break;
  }
  const vector_format found = format_of_bytes(*source);
  return open_source(std::move(source), found);
}

// Splits "FILE.hdf5:NAME"; a path without a data set stays as it is.
vector_input with_dataset(vector_input input) {
  const std::size_t colon = input.path.rfind(':');
  if (colon == std::string::npos ||
      format_of_path(input.path.substr(0, colon)) != vector_format::hdf5)
    return input;
  input.dataset = input.path.substr(colon + 1);
  input.path.resize(colon);
  return input;
}

std::uint32_t id_of(const std::string& path, std::int64_t number, std::size_t row) {
  if (number < 0 || number > std::int64_t{0xFFFFFFFE})
    throw file_error(
        path, fmt::format("row {} holds the id {}, expected 0 to {}", row, number, 0xFFFFFFFEu));
  return static_cast<std::uint32_t>(number);
}

}  // namespace

std::unique_ptr<vector_file> open_vector_file(const vector_input& given) {
  const vector_input input = with_dataset(given);
  const vector_format named = format_of_path(input.path);
  const vector_format format = named != vector_format::unknown ? named : input.format;
  if (format == vector_format::hdf5) return open_hdf5_file(input.path, input.dataset);
  return open_source(std::make_unique<byte_source>(input.path), format);
}

std::unique_ptr<vector_file> open_vector_bytes(const std::string& name, std::string_view bytes,
                                               vector_format format) {
  return open_source(std::make_unique<byte_source>(name, bytes), format);
}

id_rows read_id_file(const vector_input& input, std::size_t row_limit) {
  const std::unique_ptr<vector_file> file = open_vector_file(input);
  if (!is_whole(file->element()))
    throw file_error(input.path, "holds numbers with fractions, expected ids (an ivecs file)");
  id_rows result;
  result.width = file->dimension();
  std::vector<std::int64_t> row(result.width);
  while (result.rows < row_limit && file->read(1, row.data()) == 1) {
    for (const std::int64_t number : row)
      result.ids.push_back(id_of(input.path, number, result.rows));
    ++result.rows;
  }
  return result;
}

std::unique_ptr<vector_file> open_label_file(const std::string& path) {
  auto source = std::make_unique<byte_source>(path);
  const auto first = source->peek();
  const bool npy = format_of_path(path) == vector_format::npy || first[0] == 0x93;
  std::unique_ptr<vector_file> file;
  if (npy || (first[0] == 0 && first[1] == 0)) {
    const row_layout layout = npy ? parse_npy(*source, 1) : parse_idx(*source, 1);
    file = std::make_unique<layout_file>(std::move(source), layout);
  } else {
    file = open_text_file(std::move(source), element_type::u64);
  }
  if (file->dimension() != 1 || !is_whole(file->element()))
    throw file_error(path, "not one whole number a row, expected the label of each vector");
  return file;
}

}  // namespace korvex::cli
