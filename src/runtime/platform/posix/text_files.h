#ifndef KORVEX_RUNTIME_PLATFORM_POSIX_TEXT_FILES_H
#define KORVEX_RUNTIME_PLATFORM_POSIX_TEXT_FILES_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The small text files in which the kernel tells about itself.
namespace korvex::platform {

// Empty when the file cannot be read.
std::string read_text_file(const std::string& path);

// The number behind `key` at the start of a line ("MemAvailable:   123 kB" -> 123); an empty key
// takes the first line.
std::optional<std::uint64_t> number_after(std::string_view text, std::string_view key);

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_POSIX_TEXT_FILES_H
