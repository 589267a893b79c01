#ifndef KORVEX_STORAGE_VECTOR_STORE_FORMAT_H
#define KORVEX_STORAGE_VECTOR_STORE_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <string>

// The bytes and names of block files. Nothing here touches a file or a store, so that files can be
// judged from outside a running index.
namespace korvex {

inline constexpr std::uint8_t vector_block_signature[3] = {0xAC, 0x59, 0x01};  // third: version

// The start of every block, little-endian. Written to disk: fields never move.
struct vector_block_header_s {
  std::uint8_t signature[3];
  std::uint8_t reserved_3[3];
  std::uint16_t header_size;
  std::uint64_t file_size;  // 0 in memory
  std::uint64_t reserved_16;
  std::uint32_t record_size;
  std::uint32_t records_used;
  std::uint32_t reserved_32;
  std::uint32_t last_sync;  // seconds since 1970
  std::uint8_t reserved_40[88];
};
static_assert(sizeof(vector_block_header_s) == 128);
static_assert(offsetof(vector_block_header_s, header_size) == 6);
static_assert(offsetof(vector_block_header_s, file_size) == 8);
static_assert(offsetof(vector_block_header_s, record_size) == 24);
static_assert(offsetof(vector_block_header_s, records_used) == 28);
static_assert(offsetof(vector_block_header_s, last_sync) == 36);

enum class vector_block_verdict { good, too_short, bad_signature, bad_header };

// Judges an untrusted block as number `index` of a store with these sizes. A good block may be used
// in full: its records lie inside `size`, and its used ones have ids below 2^32 - 1.
vector_block_verdict check_vector_block(const std::byte* bytes, std::uint64_t size,
                                        std::uint32_t record_size, std::uint32_t records_per_block,
                                        std::uint32_t index);

// A number as letters a-z and digits 0-5, five bits each, most significant first; at most 13 and a
// zero byte in `out`. With `masked`, the significant bits are first flipped by a pattern. Not
// injective then: numbers whose top bit the pattern clears share their name with shorter ones.
// The length.
std::size_t string_hex_compress(std::uint64_t value, bool masked, char* out);
inline constexpr std::size_t hex_compress_room = 14;

// How many records a block of about block_bytes holds: a power of two. Requires a record size.
std::uint32_t vector_records_per_block(std::uint32_t record_size, std::uint64_t block_bytes);

// What the names of a store's block files are made of. Of the extension 16 characters count.
struct vector_file_names_s {
  std::string prefix;
  std::string extension;
  std::uint32_t record_size;
  std::uint32_t records_per_block;
  std::uint8_t kind;
};
// Without its directory.
std::string vector_block_file_name(const vector_file_names_s& names, std::uint32_t index);

}  // namespace korvex

#endif  // KORVEX_STORAGE_VECTOR_STORE_FORMAT_H
