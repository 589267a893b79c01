#include "runtime/platform/posix/text_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>

namespace korvex::platform {
namespace {

struct descriptor_closer {
  const int fd;
  ~descriptor_closer() { ::close(fd); }
};

}  // namespace

std::string read_text_file(const std::string& path) {
  std::string text;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return text;
  const descriptor_closer closer{fd};
  char piece[4096];
  for (ssize_t n = 0; (n = ::read(fd, piece, sizeof piece)) > 0;)
    text.append(piece, static_cast<std::size_t>(n));
  return text;
}

std::optional<std::uint64_t> number_after(std::string_view text, std::string_view key) {
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(line.size() < text.size() ? line.size() + 1 : text.size());
    if (!line.starts_with(key)) continue;
    line.remove_prefix(key.size());
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    std::uint64_t number = 0;
    const auto parsed = std::from_chars(line.data(), line.data() + line.size(), number);
    if (parsed.ec != std::errc{}) return std::nullopt;
    return number;
  }
  return std::nullopt;
}

}  // namespace korvex::platform
