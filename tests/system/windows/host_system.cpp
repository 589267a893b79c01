#include "host_system.h"

#include <windows.h>
// After windows.h, whose types they need.
#include <io.h>
#include <shlobj.h>

#include <cstdint>

namespace host_system {

const char* const null_device = "NUL";
const bool files_are_private = false;  // their directory says who may read them
const bool ending_has_any_case = true;
const char* const mapping_call = "CreateFileMapping";
const long error_no_memory = ERROR_NOT_ENOUGH_MEMORY;
const long error_too_long = ERROR_INVALID_PARAMETER;
const int patience = 5;  // every wake-up of a thread asks Wine's server

bool aborted(int status) {
  return status == 3;
}

// The shell takes what begins with a slash for an option.
std::string command(const char* path) {
  return std::filesystem::absolute(path).make_preferred().string();
}

int exit_code(int status) {
  return status;
}

void end_process(int code) {
  ::ExitProcess(static_cast<UINT>(code));
}

void output_to_errors() {
  ::_dup2(2, 1);
}

void* load_library(const char* path) {
  return ::LoadLibraryA(path);
}

std::string load_error() {
  return "error " + std::to_string(::GetLastError());
}

void* find_function(void* library, const char* name) {
  return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(library), name));
}

void free_library(void* library) {
  ::FreeLibrary(static_cast<HMODULE>(library));
}

std::size_t open_handles() {
  DWORD count = 0;
  ::GetProcessHandleCount(::GetCurrentProcess(), &count);
  return count;
}

double processor_seconds() {
  constexpr double units = 1e7;  // of 100 ns
  FILETIME made, ended, kernel, user;
  ::GetProcessTimes(::GetCurrentProcess(), &made, &ended, &kernel, &user);
  const auto count = [](const FILETIME& time) {
    return static_cast<double>(std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime);
  };
  return (count(kernel) + count(user)) / units;
}

bool make_link(const std::filesystem::path&, const std::filesystem::path&) {
  return false;
}

// No process can choose it for itself.
user_folder::user_folder(const std::filesystem::path&) {
  wchar_t* found = nullptr;
  if (::SHGetKnownFolderPath(FOLDERID_LocalAppData, 0, nullptr, &found) == S_OK) path_ = found;
  ::CoTaskMemFree(found);
}

user_folder::~user_folder() = default;

}  // namespace host_system
