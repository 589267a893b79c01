#include "cli/readers/row_layout.h"

// fvecs, bvecs, ivecs: rows that each begin with their dimension (int32, little endian), followed by
// float32, uint8 or int32 elements. There is no header; the first row speaks for all.
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

}  // namespace korvex::cli
