#ifndef KORVEX_ENGINE_INDEX_FILES_H
#define KORVEX_ENGINE_INDEX_FILES_H

#include <string>

// Whose files lie in the directory of an index. Several indexes share one, each under a name of its own.
namespace korvex {

// Whether a file of that name is a block file of the index: two codes behind the prefix of one of its stores.
bool is_block_file_of(const std::string& index, const std::string& file);

// Whether the file begins as a block file does, or as an index file does: an index may be called as a block file of
// another one.
bool holds_block(const std::string& path);
bool holds_index(const std::string& path);

// Deletes the block files of an index, what was set aside of them or saved beside its index file, and every other file
// with the extension that belongs to no other index of the directory. The index file itself stays, for its lock.
// Requires that lock, and that the stores are closed.
void delete_files_beside_index(const std::string& directory, const std::string& index);

}  // namespace korvex

#endif  // KORVEX_ENGINE_INDEX_FILES_H
