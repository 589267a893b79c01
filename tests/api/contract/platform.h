#ifndef KORVEX_TESTS_API_CONTRACT_PLATFORM_H
#define KORVEX_TESTS_API_CONTRACT_PLATFORM_H

#include <cstdlib>
#include <string>

#if defined(_WIN32)
#define NOMINMAX
#include <windows.h>
#else
#include <dlfcn.h>
#endif

// The little that a host asks of the system.

#if defined(_WIN32)

inline void* open_library(const char* path) {
  return reinterpret_cast<void*>(LoadLibraryA(path));
}
inline void* find_function(void* library, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}
inline std::string loading_error() {
  return "error " + std::to_string(GetLastError());
}
// Null: no variable names the folder for a user's data.
inline constexpr const char* user_data_variable = nullptr;
inline void set_variable(const char* name, const char* value) {
  _putenv_s(name, value == nullptr ? "" : value);
}

#else

inline void* open_library(const char* path) {
  return dlopen(path, RTLD_NOW | RTLD_LOCAL);
}
inline void* find_function(void* library, const char* name) {
  return dlsym(library, name);
}
inline std::string loading_error() {
  const char* const error = dlerror();
  return error == nullptr ? "" : error;
}
inline constexpr const char* user_data_variable = "XDG_DATA_HOME";
inline void set_variable(const char* name, const char* value) {
  value == nullptr ? unsetenv(name) : setenv(name, value, 1);
}

#endif

#endif  // KORVEX_TESTS_API_CONTRACT_PLATFORM_H
