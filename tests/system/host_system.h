#ifndef KORVEX_TESTS_HOST_SYSTEM_H
#define KORVEX_TESTS_HOST_SYSTEM_H

#include <fcntl.h>  // the flags of open

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

// What tests need of the system they run on, and where its answers differ.
namespace host_system {

extern const char* const null_device;
extern const bool files_are_private;    // a new file's permissions are its owner's alone
extern const bool ending_has_any_case;  // for whom delete_files looks
extern const char* const mapping_call;  // what is named when a file cannot be mapped,
extern const long error_no_memory;      // its number when memory is short
extern const long error_too_long;       // and when the file is

// Whether that is how std::abort ends a process.
bool aborted(int status);
// A program's path as std::system wants it.
std::string command(const char* path);
// The exit code that std::system tells; -1 when the program did not come to its end.
int exit_code(int status);
// As std::exit, by the system's own call where libraries can tell the difference.
[[noreturn]] void end_process(int code);
// From here on standard output goes where standard error goes.
void output_to_errors();

void* load_library(const char* path);
std::string load_error();
void* find_function(void* library, const char* name);
void free_library(void* library);
// Files and whatever else the system counts that this process holds open.
std::size_t open_handles();

// How much longer than elsewhere a wait may take, and how many times fewer rounds a test of threads does.
extern const int patience;
// Of this process, all its threads together.
double processor_seconds();

// Makes a link to a file; false where that needs a privilege.
bool make_link(const std::filesystem::path& target, const std::filesystem::path& link);

// The directory for the user's data: an empty one for as long as the object exists, where a process may choose it.
class user_folder {
 public:
  explicit user_folder(const std::filesystem::path& empty);
  ~user_folder();
  user_folder(const user_folder&) = delete;
  user_folder& operator=(const user_folder&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
  std::optional<std::string> before_;
};

}  // namespace host_system

#endif  // KORVEX_TESTS_HOST_SYSTEM_H
