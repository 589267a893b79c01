#ifndef KORVEX_RUNTIME_PLATFORM_WINDOWS_SYSTEM_H
#define KORVEX_RUNTIME_PLATFORM_WINDOWS_SYSTEM_H

#include <windows.h>

#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

// What the sources of this folder share: text, errors and handles of the system.
namespace korvex::platform {

std::wstring widen(std::string_view utf8);
std::string narrow(std::wstring_view text);

// A path as the system wants it; one that is too long for the old interface in its long form. Empty when `path` is
// null or empty.
std::wstring wide_path(const char* path);

// Sets errno to what a C runtime would have made of the system's error, and returns -1.
int fail_with(unsigned long system_error);
int fail();  // with GetLastError()

// The file behind a descriptor of the C runtime; INVALID_HANDLE_VALUE, with errno set, when there is none.
HANDLE handle_of(int fd);

struct handle_closer {
  void operator()(HANDLE handle) const { ::CloseHandle(handle); }
};
using unique_handle = std::unique_ptr<std::remove_pointer_t<HANDLE>, handle_closer>;

// What a call that answers INVALID_HANDLE_VALUE on failure gave: null then.
inline unique_handle owned(HANDLE handle) {
  return unique_handle(handle == INVALID_HANDLE_VALUE ? nullptr : handle);
}

// A function of a library of the system that is loaded when first needed, null when there is none. The library stays.
FARPROC system_function(const wchar_t* library, const char* name);

template <typename Function>
Function system_function(const wchar_t* library, const char* name) {
  return reinterpret_cast<Function>(reinterpret_cast<void*>(system_function(library, name)));
}

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_WINDOWS_SYSTEM_H
