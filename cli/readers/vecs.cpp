#include "cli/readers/row_layout.h"

// fvecs, bvecs, ivecs: rows that each begin with their dimension (int32, little endian), followed by
// float32, uint8 or int32 elements. There is no header; the first row speaks for all.
// fbin, u8bin: the number of rows and the dimension (uint32 each, little endian), then the elements.
namespace korvex::cli {

row_layout parse_vecs(byte_source& source, element_type type) {
  if (source.size() && *source.size() < 4)
    source.fail("no row: found " + std::to_string(*source.size()) + " bytes, expected 4 or more");
  // A negative dimension is beyond the largest one as an unsigned number.
  row_layout layout;
  layout.type = type;
  layout.dimension = load_u32(source.peek().data(), std::endian::little);
  layout.prefixed = true;
  check_layout(source, layout);
  return layout;
}

row_layout parse_bin(byte_source& source, element_type type) {
  unsigned char header[8];
  source.read_exactly(header, sizeof header, "the header");
  row_layout layout;
  layout.type = type;
  layout.rows = load_u32(header, std::endian::little);
  layout.dimension = load_u32(header + 4, std::endian::little);
  layout.header_bytes = sizeof header;
  check_layout(source, layout);
  return layout;
}

}  // namespace korvex::cli
