#ifndef KORVEX_STORAGE_PERSISTENT_ALLOCATOR_FILE_H
#define KORVEX_STORAGE_PERSISTENT_ALLOCATOR_FILE_H

#include "storage/mapping.h"
#include "storage/persistent_allocator_format.h"

// What happens to an allocator file between its mapping and its first block. For the allocator only.
// Threads     none beside the caller; whoever changes a file holds its lock.
namespace korvex {

// mapping_reserve with a line about a full disk.
bool persistent_file_reserve(mmap_handle_t* file, std::uint64_t upto_bytes, const char* path);

// Writes the header of an empty allocator and flushes. False when the device refused.
bool persistent_file_reset(mmap_handle_t* file, const char* path);

// Checks the header and logs what is wrong with it. A wrong magic counts as wrong.
bool persistent_file_validate(const mmap_handle_t& file);

// Whether more than a fifth of the used bytes are deleted; says so.
bool persistent_file_wants_compaction(const persistent_header_s& header);

// Moves the live blocks together and links them anew. Everything from the first damaged block on is lost.
// The used part is saved beside the file, as "<path>.compact", for as long as a kill would leave a mixture: when it
// cannot be saved the file stays as it is, which is no failure.
// False when the result could not be flushed, or the saved part could not be made invalid: the file must not be used,
// and the next opening puts the saved part back.
bool persistent_file_compact(mmap_handle_t* file, const char* path);

// Puts back what an interrupted compaction saved, and removes it. An incomplete one is removed unused: the compaction
// had not begun. False when the file is in an unknown state.
bool persistent_file_recover(mmap_handle_t* file, const char* path);

// Makes sure that nothing saved from an earlier file of this name is ever put back. False when that cannot be done.
bool persistent_file_discard_saved(const char* path);

}  // namespace korvex

#endif  // KORVEX_STORAGE_PERSISTENT_ALLOCATOR_FILE_H
