#include "cli/readers/vector_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "cli/readers/row_layout.h"

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

  std::size_t read(std::size_t count, float* out) override {
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

 private:
  const std::unique_ptr<byte_source> source_;
  const row_layout layout_;
  row_reader reader_;
  const std::size_t row_elements_;
  std::vector<unsigned char> raw_;
};

bool named(std::string_view path, std::string_view ending) {
  if (path.ends_with(".gz")) path.remove_suffix(3);
  return path.ends_with(ending);
}

row_layout parse_header(byte_source& source) {
  if (named(source.path(), ".fvecs")) return parse_vecs(source, element_type::f32);
  if (named(source.path(), ".bvecs")) return parse_vecs(source, element_type::u8);
  const auto first = source.peek();
  if (named(source.path(), ".npy") || first[0] == 0x93) return parse_npy(source);
  if (first[0] == 0 && first[1] == 0) return parse_idx(source);
  source.fail(
      fmt::format("begins with bytes {:02x} {:02x}, expected an idx or npy header, or a name "
                  "that ends in .fvecs, .bvecs or .npy",
                  first[0], first[1]));
}

}  // namespace

std::unique_ptr<vector_file> open_vector_file(const std::string& path) {
  auto source = std::make_unique<byte_source>(path);
  const row_layout layout = parse_header(*source);
  return std::make_unique<layout_file>(std::move(source), layout);
}

id_rows read_id_file(const std::string& path, std::size_t row_limit) {
  byte_source source(path);
  if (!named(path, ".ivecs")) source.fail("not an ivecs file by its name");
  const row_layout layout = parse_vecs(source, element_type::i32);
  row_reader reader(source, layout);
  id_rows result;
  result.width = layout.dimension;
  std::vector<unsigned char> raw(result.width * 4);
  while (result.rows < row_limit && reader.read(1, raw.data()) == 1) {
    for (std::size_t i = 0; i < result.width; ++i) {
      const std::uint32_t id = load_u32(raw.data() + 4 * i, std::endian::little);
      if (id > 0x7FFFFFFFu)
        source.fail(fmt::format("row {} holds the id {}, expected 0 or more", result.rows,
                                static_cast<std::int32_t>(id)));
      result.ids.push_back(id);
    }
    ++result.rows;
  }
  return result;
}

}  // namespace korvex::cli
