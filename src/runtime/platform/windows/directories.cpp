#include <algorithm>
#include <cerrno>
#include <cstring>

#include "runtime/platform/files.h"
#include "runtime/platform/windows/system.h"

namespace korvex::platform {
namespace {

constexpr std::size_t longest_directory = 258;

struct search_closer {
  void operator()(HANDLE search) const { ::FindClose(search); }
};
using unique_search = std::unique_ptr<std::remove_pointer_t<HANDLE>, search_closer>;

// Calls visit(entry) for each entry but the two that every directory has. False when it cannot be read.
template <typename Visit>
bool for_each_entry(const char* directory, Visit visit) {
  if (*directory == '\0') return false;  // "/*" would be the root of the drive
  WIN32_FIND_DATAW entry{};
  const std::wstring all = wide_path((std::string(directory) + "/*").c_str());
  const HANDLE first =
      ::FindFirstFileExW(all.c_str(), FindExInfoBasic, &entry, FindExSearchNameMatch, nullptr,
                         FIND_FIRST_EX_LARGE_FETCH);
  if (first == INVALID_HANDLE_VALUE) return false;
  const unique_search search(first);
  do {
    const std::wstring_view name = entry.cFileName;
    if (name != L"." && name != L"..") visit(entry);
  } while (::FindNextFileW(search.get(), &entry));
  return true;
}

bool has(const WIN32_FIND_DATAW& entry, DWORD attribute) {
  return (entry.dwFileAttributes & attribute) != 0;
}

bool ends_in(std::wstring_view name, std::wstring_view ending) {
  if (name.size() < ending.size()) return false;
  const std::wstring_view end = name.substr(name.size() - ending.size());
  const int size = static_cast<int>(ending.size());
  return ::CompareStringOrdinal(end.data(), size, ending.data(), size, TRUE) == CSTR_EQUAL;
}

bool make_directory(const std::string& path) {
  if (::CreateDirectoryW(wide_path(path.c_str()).c_str(), nullptr)) return true;
  const DWORD why = ::GetLastError();
  if (status_of(path.c_str()).directory) return true;
  fail_with(why);
  if (why == ERROR_ALREADY_EXISTS) errno = ENOTDIR;
  return false;
}

// What stands before the last name; empty when there is nothing.
std::string parent_of(const std::string& path) {
  constexpr const char* separators = "/\\";
  const std::size_t name = path.find_last_not_of(separators);
  if (name == std::string::npos) return {};
  const std::size_t separator = path.find_last_of(separators, name);
  return separator == std::string::npos ? std::string() : path.substr(0, separator);
}

}  // namespace

int create_directories(const char* path) {
  if (path == nullptr || *path == '\0') {
    errno = ENOENT;
    return -1;
  }
  if (make_directory(path)) return 0;
  // Only a parent that is missing leaves something to do here.
  const std::string parent = parent_of(path);
  if (errno != ENOENT || parent.empty() || create_directories(parent.c_str()) != 0) return -1;
  return make_directory(path) ? 0 : -1;
}

std::vector<directory_entry> list_directory(const char* path) {
  std::vector<directory_entry> entries;
  if (path == nullptr) return entries;
  for_each_entry(path, [&](const WIN32_FIND_DATAW& entry) {
    entries.push_back({narrow(entry.cFileName), !has(entry, FILE_ATTRIBUTE_DIRECTORY), 0});
  });
  // The directory itself learns of a new size when the file is closed; only the file tells it at once.
  for (directory_entry& entry : entries)
    if (entry.regular) entry.size = status_of((path + ("/" + entry.name)).c_str()).size;
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  return entries;
}

int delete_files(const char* directory, const char* extension) {
  if (directory == nullptr || extension == nullptr) return -1;
  if (std::strlen(directory) > longest_directory) return -1;

  // Names first: an entry that goes while the directory is read may hide others.
  const std::wstring ending = widen(std::string(".") + extension);
  std::vector<std::string> doomed;
  const bool read = for_each_entry(directory, [&](const WIN32_FIND_DATAW& entry) {
    constexpr DWORD no_file = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    if (!has(entry, no_file) && ends_in(entry.cFileName, ending))
      doomed.push_back(narrow(entry.cFileName));
  });
  if (!read) return -1;
  return static_cast<int>(std::count_if(doomed.begin(), doomed.end(), [&](const std::string& name) {
    return remove_file((std::string(directory) + "/" + name).c_str()) == 0;
  }));
}

}  // namespace korvex::platform
