#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "runtime/platform/files.h"

namespace korvex::platform {
namespace {

constexpr mode_t owner_only = 0700;
constexpr std::size_t longest_directory = 258;

struct directory_closer {
  void operator()(DIR* directory) const { ::closedir(directory); }
};
using directory_handle = std::unique_ptr<DIR, directory_closer>;

// Calls visit(directory descriptor, name) for each entry but the two that every directory has.
template <typename Visit>
void for_each_entry(DIR* directory, Visit visit) {
  while (const dirent* entry = ::readdir(directory)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") visit(::dirfd(directory), entry->d_name);
  }
}

// The directory that an absolute or relative path lies in.
std::string parent_of(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? "." : std::string(path.substr(0, slash + 1));
}

bool make_directory(const char* path) {
  if (::mkdir(path, owner_only) == 0) {
    sync_directory(parent_of(path).c_str());
    return true;
  }
  const int why = errno;
  if (status_of(path).directory) return true;
  errno = why == EEXIST ? ENOTDIR : why;
  return false;
}

}  // namespace

int create_directories(const char* path) {
  if (path == nullptr || *path == '\0') {
    errno = ENOENT;
    return -1;
  }
  if (status_of(path).directory) return 0;
  std::string prefix = path;
  for (std::size_t at = prefix.find('/', 1); at != std::string::npos;
       at = prefix.find('/', at + 1)) {
    prefix[at] = '\0';
    const bool there = make_directory(prefix.c_str());
    prefix[at] = '/';
    if (!there) return -1;
  }
  return make_directory(prefix.c_str()) ? 0 : -1;
}

std::vector<directory_entry> list_directory(const char* path) {
  std::vector<directory_entry> entries;
  const directory_handle directory(path == nullptr ? nullptr : ::opendir(path));
  if (directory == nullptr) return entries;
  for_each_entry(directory.get(), [&](int fd, const char* name) {
    struct stat status {};
    if (::fstatat(fd, name, &status, 0) != 0) return;  // gone since
    entries.push_back({name, S_ISREG(status.st_mode), static_cast<std::uint64_t>(status.st_size)});
  });
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  return entries;
}

int delete_files(const char* directory_path, const char* extension) {
  if (directory_path == nullptr || extension == nullptr) return -1;
  if (std::strlen(directory_path) > longest_directory) return -1;
  const directory_handle directory(::opendir(directory_path));
  if (directory == nullptr) return -1;

  // Names first: an entry that goes while the directory is read may hide others.
  const std::string ending = std::string(".") + extension;
  std::vector<std::string> doomed;
  for_each_entry(directory.get(), [&](int fd, const char* name) {
    struct stat status {};
    if (!std::string_view(name).ends_with(ending)) return;
    if (::fstatat(fd, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (S_ISREG(status.st_mode)) doomed.emplace_back(name);
  });
  return static_cast<int>(std::count_if(doomed.begin(), doomed.end(), [&](const std::string& name) {
    return ::unlinkat(::dirfd(directory.get()), name.c_str(), 0) == 0;
  }));
}

}  // namespace korvex::platform
