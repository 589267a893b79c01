#include "engine/index_files.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "engine/store_layout.h"
#include "runtime/platform/files.h"
#include "storage/persistent_allocator_format.h"

namespace korvex {

namespace {

const std::string ending = std::string(".") + index_extension;

enum class beginning { other, wanted, unreadable };

beginning look_at(const std::string& path, const void* bytes, std::size_t count) {
  if (!platform::status_of(path.c_str()).regular)
    return beginning::other;  // opening a pipe would wait
  unsigned char found[8] = {};
  const int fd = platform::open_file(path.c_str(), platform::open_mode::read_only);
  if (fd < 0) return beginning::unreadable;
  const std::int64_t read = platform::read_at(fd, found, count, 0);
  platform::close_file(fd);
  if (read < 0) return beginning::unreadable;
  const bool whole = read == static_cast<std::int64_t>(count);
  return whole && std::memcmp(found, bytes, count) == 0 ? beginning::wanted : beginning::other;
}

bool are_two_codes(std::string_view text) {
  constexpr const char* digits = "abcdefghijklmnopqrstuvwxyz012345";
  const std::size_t dash = text.find('-');
  return dash != std::string_view::npos && dash != 0 && dash + 1 < text.size() &&
         text.find_first_not_of(digits) == dash &&
         text.find_first_not_of(digits, dash + 1) == std::string_view::npos;
}

bool is_file_of(const std::string& index, const std::string& file) {
  return file == index + ending || is_block_file_of(index, file);
}

// Without what marks a saved or a refused file.
std::string plain_name(const std::string& file) {
  for (const std::string_view mark : {".compact", ".bad"})
    if (file.ends_with(ending + std::string(mark)))
      return file.substr(0, file.size() - mark.size());
  return file;
}

// What cannot be read may be an index: nothing of its name is deleted.
bool may_hold_index(const std::string& path) {
  return look_at(path, &persistent_magic, sizeof persistent_magic) != beginning::other;
}

// An index may be called as a block file of another one would be.
std::vector<std::string> other_indexes(const std::string& directory, const std::string& index,
                                       const std::vector<platform::directory_entry>& entries) {
  std::vector<std::string> names;
  for (const platform::directory_entry& entry : entries)
    if (entry.regular && entry.name.ends_with(ending) && entry.name != index + ending &&
        may_hold_index(directory + "/" + entry.name))
      names.push_back(entry.name.substr(0, entry.name.size() - ending.size()));
  return names;
}

}  // namespace

bool is_block_file_of(const std::string& index, const std::string& file) {
  constexpr std::uint8_t one_kind_of_each_prefix[] = {1, 5, 6};
  if (!file.ends_with(ending)) return false;
  const std::string_view stem(file.data(), file.size() - ending.size());
  return std::any_of(std::begin(one_kind_of_each_prefix), std::end(one_kind_of_each_prefix),
                     [&](std::uint8_t kind) {
                       const std::string prefix = store_prefix(index, kind) + "-";
                       return stem.starts_with(prefix) && are_two_codes(stem.substr(prefix.size()));
                     });
}

bool holds_block(const std::string& path) {
  return look_at(path, vector_block_signature, 2) == beginning::wanted;
}

bool holds_index(const std::string& path) {
  return look_at(path, &persistent_magic, sizeof persistent_magic) == beginning::wanted;
}

void delete_files_beside_index(const std::string& directory, const std::string& index) {
  const auto entries = platform::list_directory(directory.c_str());
  const std::vector<std::string> others = other_indexes(directory, index, entries);
  const auto belongs_to_another = [&](const std::string& plain) {
    return std::any_of(others.begin(), others.end(),
                       [&](const std::string& other) { return plain == other + ending; }) ||
           (!is_file_of(index, plain) &&
            std::any_of(others.begin(), others.end(),
                        [&](const std::string& other) { return is_file_of(other, plain); }));
  };
  const auto keeps = [&](const std::string& file, const std::string& plain) {
    if (file == index + ending || !plain.ends_with(ending) || belongs_to_another(plain))
      return true;
    return file != plain && !is_file_of(index, plain);
  };
  for (const platform::directory_entry& entry : entries)
    if (entry.regular && !keeps(entry.name, plain_name(entry.name)))
      platform::remove_file((directory + "/" + entry.name).c_str());
}

}  // namespace korvex
