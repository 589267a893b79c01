#include "runtime/platform/windows/system.h"

#include <io.h>

#include <cerrno>
#include <system_error>

namespace korvex::platform {
namespace {

// From here on the old interface may refuse a path: a directory leaves room for a short name in it.
constexpr std::size_t longest_plain_path = MAX_PATH - 13;

std::wstring full_path(const std::wstring& path) {
  std::wstring full(::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
  if (full.empty()) return path;
  full.resize(
      ::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
  return full;
}

}  // namespace

std::wstring widen(std::string_view utf8) {
  const int size = static_cast<int>(utf8.size());
  const int needed = ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0);
  std::wstring text(static_cast<std::size_t>(needed), L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, text.data(), needed);
  return text;
}

std::string narrow(std::wstring_view text) {
  const int size = static_cast<int>(text.size());
  const int needed =
      ::WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(needed), '\0');
  ::WideCharToMultiByte(CP_UTF8, 0, text.data(), size, utf8.data(), needed, nullptr, nullptr);
  return utf8;
}

std::wstring wide_path(const char* path) {
  if (path == nullptr) return {};
  std::wstring wide = widen(path);
  if (wide.size() < longest_plain_path) return wide;
  const std::wstring full = full_path(wide);
  if (full.starts_with(L"\\\\?\\")) return full;
  if (full.starts_with(L"\\\\")) return L"\\\\?\\UNC" + full.substr(1);
  return L"\\\\?\\" + full;
}

int fail_with(unsigned long system_error) {
  const std::error_code code(static_cast<int>(system_error), std::system_category());
  const std::error_condition known = code.default_error_condition();
  errno = known.category() == std::generic_category() ? known.value() : EIO;
  return -1;
}

int fail() {
  return fail_with(::GetLastError());
}

HANDLE handle_of(int fd) {
  if (fd >= 0) return reinterpret_cast<HANDLE>(::_get_osfhandle(fd));
  errno = EBADF;
  return INVALID_HANDLE_VALUE;
}

FARPROC system_function(const wchar_t* library, const char* name) {
  const HMODULE module = ::LoadLibraryExW(library, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  return module == nullptr ? nullptr : ::GetProcAddress(module, name);
}

}  // namespace korvex::platform
