#include "storage/vector_store_format.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "storage/vector_store.h"

namespace korvex {

static_assert(std::endian::native == std::endian::little, "headers are read as they are");

std::size_t string_hex_compress(std::uint64_t value, bool masked, char* out) {
  constexpr std::uint64_t pattern = 0xA5A5A5A5A5A5A5A5;
  if (masked && value != 0) value ^= pattern & (~std::uint64_t{0} >> std::countl_zero(value));
  std::size_t length = 0;
  do {
    const auto digit = static_cast<char>(value & 31);
    out[length++] = static_cast<char>(digit < 26 ? 'a' + digit : '0' + (digit - 26));
    value >>= 5;
  } while (value != 0);
  std::reverse(out, out + length);
  out[length] = '\0';
  return length;
}

vector_block_verdict check_vector_block(const std::byte* bytes, std::uint64_t size,
                                        std::uint32_t record_size, std::uint32_t records_per_block,
                                        std::uint32_t index) {
  const std::uint64_t data_bytes = std::uint64_t{record_size} * records_per_block;
  vector_block_header_s header;
  if (size < sizeof header || size - sizeof header < data_bytes)
    return vector_block_verdict::too_short;
  std::memcpy(&header, bytes, sizeof header);
  if (std::memcmp(header.signature, vector_block_signature, 2) != 0)
    return vector_block_verdict::bad_signature;
  if (header.signature[2] != vector_block_signature[2] || header.record_size != record_size ||
      header.records_used > records_per_block)
    return vector_block_verdict::bad_header;
  const std::uint64_t first = std::uint64_t{index} * records_per_block;
  return first + header.records_used < vector_no_id ? vector_block_verdict::good
                                                    : vector_block_verdict::bad_header;
}

std::uint32_t vector_records_per_block(std::uint32_t record_size, std::uint64_t block_bytes) {
  constexpr std::uint64_t largest = 1ull << 31;
  const std::uint64_t wanted = std::clamp<std::uint64_t>(block_bytes / record_size, 1, largest);
  return static_cast<std::uint32_t>(std::bit_ceil(wanted));
}

std::string vector_block_file_name(const vector_file_names_s& names, std::uint32_t index) {
  char shape[hex_compress_room];
  char block[hex_compress_room];
  string_hex_compress(std::uint64_t{names.record_size} << 32 | names.records_per_block, true,
                      shape);
  string_hex_compress(std::uint64_t{names.kind} << 32 | index, true, block);
  return names.prefix + "-" + shape + "-" + block + "." + names.extension.substr(0, 16);
}

}  // namespace korvex
