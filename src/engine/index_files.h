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

// Deletes the index file and the block files of an index, what was set aside of them or saved beside them, and every
// other file with the extension that belongs to no other index of the directory.
// Requires that nobody has the index open.
void delete_index_files(const std::string& directory, const std::string& index);

}  // namespace korvex

#endif  // KORVEX_ENGINE_INDEX_FILES_H
