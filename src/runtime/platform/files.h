#ifndef KORVEX_RUNTIME_PLATFORM_FILES_H
#define KORVEX_RUNTIME_PLATFORM_FILES_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

// Files and directories. Descriptors are those of the C runtime on every platform; paths are UTF-8.
// Failures leave the system's error number in errno; error_text(errno) words it.
namespace korvex::platform {

struct file_status {
  bool exists = false;
  bool regular = false;
  bool directory = false;
  std::uint64_t size = 0;
};

enum class open_mode {
  existing,    // read and write, must exist
  read_only,   // must exist
  create,      // read and write, created when absent, kept otherwise
  create_new,  // read and write, must not exist
  truncate,    // read and write, created or cut to nothing
  append,      // write at the end, created when absent
};

file_status status_of(const char* path);
// The room that a file takes on disk; its holes take none. 0 when the system does not tell.
std::uint64_t allocated_bytes(const char* path);

// A descriptor that no child process inherits, or -1. New files are readable and writable by their owner only, or
// by whom their directory says where files inherit that.
int open_file(const char* path, open_mode mode);
// An unbuffered descriptor, or -1: offsets, sizes and buffers must be multiples of the device's
// block.
int open_unbuffered(const char* path, bool read, bool write, bool create, bool exclusive,
                    bool truncate);
void close_file(int fd);
// A stream that writes to the descriptor, null when there is none; closing it closes the descriptor.
std::FILE* stream_of_file(int fd);

// Bytes moved, less than `size` only at the end of the file; -1 on an error.
std::int64_t read_at(int fd, void* data, std::uint64_t size, std::uint64_t offset);
std::int64_t write_at(int fd, const void* data, std::uint64_t size, std::uint64_t offset);
// Writes all of it at the descriptor's position, as it is; false on an error.
bool write_all(int fd, const void* data, std::uint64_t size);
// The same through an open stream, after what it holds: one write, so that no other gets in between.
bool write_stream(std::FILE* stream, const void* data, std::uint64_t size);
// From here on standard input, output and error pass every byte as it is: no line end becomes another.
void keep_line_ends();
// Whether a person watches what is written to the stream.
bool is_terminal(std::FILE* stream);

// Sets the length; the new range reads as zeros and takes no room on disk yet. 0 or -1.
int set_file_size(int fd, std::uint64_t size);
// Makes room on disk for a range, so that a later write into a mapping of it cannot fail. 0, or -1
// when the disk is full or a limit was met. A file system that cannot reserve counts as success.
int reserve_file_range(int fd, std::uint64_t offset, std::uint64_t size);
// Puts everything written so far on the device. 0 or -1.
int sync_file(int fd);
// Makes the entries of a directory survive a power cut. 0, also where a system cannot or need not, or -1.
int sync_directory(const char* directory);

// Advisory exclusive lock on a whole open file, without waiting: 0, or -1 when somebody else holds
// it, be it through another descriptor of this process. A file system without locks counts as
// success.
int lock_file(int fd);
void unlock_file(int fd);
// Whether the path still leads to the open file: somebody may have removed or replaced it. True when the system does
// not tell.
bool is_file_at(int fd, const char* path);

// Creates a directory and all its parents, for their owner only; 0 or -1. An existing one is success.
int create_directories(const char* path);
int remove_file(const char* path);
int rename_file(const char* from, const char* to);  // replaces an existing target

struct directory_entry {
  std::string name;
  bool regular;
  std::uint64_t size;
};
// In the order of the names; empty when the directory cannot be read.
std::vector<directory_entry> list_directory(const char* path);

// Deletes the regular files (no links) directly in `directory` whose name ends in "." + extension.
// The count, or -1 when an argument is null, the directory is longer than 258 characters or cannot
// be read.
int delete_files(const char* directory, const char* extension);

std::string error_text(int error_number);

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_FILES_H
