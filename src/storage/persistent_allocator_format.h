#ifndef KORVEX_STORAGE_PERSISTENT_ALLOCATOR_FORMAT_H
#define KORVEX_STORAGE_PERSISTENT_ALLOCATOR_FORMAT_H

#include <cstdint>
#include <vector>

// The bytes of an allocator file, and the checks that every reader of one makes. Everything is
// little-endian and unsigned 64-bit. A file is untrusted: no offset or size of it is used before
// these functions have passed it. They read plain ranges of bytes at any alignment, change nothing
// and log nothing.
namespace korvex {

inline constexpr std::uint64_t persistent_magic = 0x504D414C;  // "LAMP" and four zero bytes
inline constexpr std::uint64_t persistent_deleted_id = ~std::uint64_t{0};
inline constexpr std::uint64_t persistent_chain_count = 1024;

struct persistent_header_s {
  std::uint64_t magic;
  std::uint64_t total_size;      // the length of the file
  std::uint64_t used_size;       // offset of the first free byte
  std::uint64_t deleted_blocks;  // blocks marked deleted and not yet compacted away
  std::uint64_t deleted_bytes;   // the sum of their block sizes
  std::uint64_t
      chain_heads[persistent_chain_count];  // offset of the newest block of a bucket, 0: none
};
static_assert(sizeof(persistent_header_s) == 8232, "blocks of existing files begin there");

struct persistent_block_s {
  std::uint64_t id;  // persistent_deleted_id for a deleted block
  std::uint64_t requested_size;
  std::uint64_t next_offset;  // next older block of the bucket, 0: none
  std::uint64_t magic;
  std::uint64_t block_size;  // with this header
};
static_assert(sizeof(persistent_block_s) == 40, "the caller's bytes begin there");

inline constexpr std::uint64_t persistent_header_bytes = sizeof(persistent_header_s);
inline constexpr std::uint64_t persistent_block_header_bytes = sizeof(persistent_block_s);
inline constexpr std::uint64_t persistent_smallest_file = persistent_header_bytes + 4096;
inline constexpr std::uint64_t persistent_block_unit =
    16;  // blocks begin and end on whole units after the header

constexpr std::uint64_t persistent_bucket_of(std::uint64_t id) {
  return id & (persistent_chain_count - 1);
}

// Bytes of a block for `size` bytes of a caller, 0 when there is no such number.
constexpr std::uint64_t persistent_block_bytes(std::uint64_t size) {
  constexpr std::uint64_t overhead = 48;
  if (size > ~std::uint64_t{0} - overhead - persistent_block_unit) return 0;
  return (size + persistent_block_unit - 1) / persistent_block_unit * persistent_block_unit +
         overhead;
}

enum class persistent_header_fault {
  none,
  truncated,    // fewer bytes than a header
  wrong_magic,  // not an allocator file
  wrong_total,  // the header was written for a file of another length
  used_too_big,
  used_too_small,
  used_misaligned,
};

// Reads the header from the first `available` bytes of a file that is file_size bytes long. *header
// is filled unless the fault is `truncated`. The first fault in the order of the enumeration wins.
persistent_header_fault persistent_read_header(const void* file, std::uint64_t available,
                                               std::uint64_t file_size,
                                               persistent_header_s* header);

enum class persistent_block_fault {
  none,
  bad_offset,  // no block can begin there
  bad_header,  // no block begins there
  bad_size,  // the block ends outside the used part, or is not as long as what was asked for makes it
};

// Whether a block can begin at the offset of a file with a valid header.
bool persistent_is_block_offset(std::uint64_t offset, std::uint64_t used_size);

// Reads the block header at an offset; `file` has at least used_size bytes. *block is filled unless
// the fault is `bad_offset`.
persistent_block_fault persistent_read_block(const void* file, std::uint64_t used_size,
                                             std::uint64_t offset, persistent_block_s* block);

// Where the blocks of a file begin: they follow one another, and behind a damaged one comes the next place
// that holds a whole one. No two of them overlap, so what a chain leads to must be among them: a block that
// was written into the bytes of another would let two users share their memory.
class persistent_block_places {
 public:
  // Takes in the blocks that end at used_size, as far as earlier calls have not. Throws std::bad_alloc.
  void learn(const void* file, std::uint64_t used_size);
  bool contain(std::uint64_t offset) const;
  // Begins of blocks whose size does not fit. One that runs over the used part would be whole one day, when the
  // part has grown, and cover what came after it.
  const std::vector<std::uint64_t>& misfits() const { return misfits_; }
  void forget_misfits() { misfits_.clear(); }

 private:
  std::vector<std::uint64_t> offsets_;  // ascending
  std::vector<std::uint64_t> misfits_;
  std::uint64_t learned_ = persistent_header_bytes;
};

}  // namespace korvex

#endif  // KORVEX_STORAGE_PERSISTENT_ALLOCATOR_FORMAT_H
