#include "fuzz/damage.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace korvex::fuzz {

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t beyond = 64;  // positions reach that far behind the content

std::uint64_t position_in(const file_image& image, std::uint64_t wanted) {
  return wanted % (image.content.size() + beyond);
}

void write_at(const std::string& path, std::uint64_t offset, const std::string& bytes) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string read_at(const std::string& path, std::uint64_t offset, std::size_t count) {
  std::string bytes(count, '\0');
  std::ifstream file(path, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(offset));
  file.read(bytes.data(), static_cast<std::streamsize>(count));
  bytes.resize(static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0)));
  return bytes;
}

std::string extreme(std::uint8_t which, std::size_t width) {
  constexpr std::uint64_t numbers[] = {
      0,          1,           2,          3,          16,           0x7F,
      0xFF,       0x100,       0x7FFF,     0xFFFF,     0x10000,      0x100000,
      0x7F800000, 0x7FC00000,  0x7FFFFFFF, 0x80000000, 0xFF7FFFFF,   0xFFFFFFFE,
      0xFFFFFFFF, 0x100000000, ~0ull >> 1, 1ull << 63, ~0ull - 0x2F, ~0ull - 1,
      ~0ull};
  const std::uint64_t number = numbers[which % std::size(numbers)];
  return {reinterpret_cast<const char*>(&number), width};
}

void replace_file(const std::string& path, std::uint8_t what, const std::vector<file_image>& images,
                  const std::string& directory) {
  std::error_code error;
  fs::remove_all(path, error);
  if (what % 8 == 0) return;
  if (what % 8 == 1) {
    std::ofstream make(path);
  } else if (what % 8 == 2) {
    fs::create_directory(path, error);
  } else {
    const std::string other = directory + "/" + images[what / 8 % images.size()].name;
    fs::copy_file(other, path, error);
  }
}

void overwrite(input* in, std::uint8_t kind, const file_image& image, const std::string& path) {
  const std::uint64_t position = position_in(image, in->number<std::uint16_t>());
  const auto byte = in->number<std::uint8_t>();
  if (kind == 3) return write_at(path, position, extreme(byte, 8));
  if (kind == 4) return write_at(path, position, extreme(byte, 4));
  write_at(path, position, in->bytes(byte));
}

void copy_within(input* in, const file_image& image, const std::string& path) {
  const std::uint64_t from = position_in(image, in->number<std::uint16_t>());
  const std::uint64_t to = position_in(image, in->number<std::uint16_t>());
  write_at(path, to, read_at(path, from, in->number<std::uint8_t>()));
}

void resize(input* in, const std::string& path) {
  const std::uint64_t low = in->number<std::uint16_t>();
  std::error_code error;
  fs::resize_file(path, low + 65536ull * in->number<std::uint8_t>(), error);
}

// Without the zeros at the end, which are most of an index file.
std::string content_of(const std::string& path, std::uint64_t length) {
  constexpr std::size_t piece_bytes = 1 << 16;
  static const std::string zeros(piece_bytes, '\0');
  std::string content;
  std::uint64_t skipped = 0;
  for (std::uint64_t at = 0; at < length; at += piece_bytes) {
    std::string piece = read_at(path, at, piece_bytes);
    if (std::memcmp(piece.data(), zeros.data(), piece.size()) == 0) {
      skipped += piece.size();
      continue;
    }
    content.append(skipped, '\0').append(piece);
    skipped = 0;
  }
  const std::size_t last = content.find_last_not_of('\0');
  content.resize(last == std::string::npos ? 0 : last + 1);
  return content;
}

}  // namespace

std::vector<file_image> take_images(const std::string& directory) {
  std::vector<file_image> images;
  for (const auto& entry : fs::directory_iterator(directory)) {
    file_image image{entry.path().filename().string(), entry.file_size(), {}};
    image.content = content_of(entry.path().string(), image.length);
    images.push_back(std::move(image));
  }
  std::sort(images.begin(), images.end(),
            [](const file_image& a, const file_image& b) { return a.name < b.name; });
  return images;
}

void put_images(const std::vector<file_image>& images, const std::string& directory) {
  fs::remove_all(directory);
  fs::create_directories(directory);
  for (const file_image& image : images) {
    const std::string path = directory + "/" + image.name;
    std::ofstream(path, std::ios::binary)
        .write(image.content.data(), static_cast<std::streamsize>(image.content.size()));
    fs::resize_file(path, image.length);
  }
}

void apply_damage(input* in, const std::vector<file_image>& images, const std::string& directory) {
  while (!in->empty()) {
    const auto head = in->number<std::uint8_t>();
    const file_image& image = images[head / 8u % images.size()];
    const std::string path = directory + "/" + image.name;
    const std::uint8_t kind = head % 8;
    if (kind < 5)
      overwrite(in, kind, image, path);
    else if (kind == 5)
      resize(in, path);
    else if (kind == 6)
      copy_within(in, image, path);
    else
      replace_file(path, in->number<std::uint8_t>(), images, directory);
  }
}

std::string beginning_of(const std::string& path, std::size_t most) {
  std::error_code error;
  if (!fs::is_regular_file(path, error)) return {};
  return read_at(path, 0, std::min<std::uint64_t>(most, fs::file_size(path, error)));
}

void fail(const char* file, int line, const char* what) {
  std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
  std::abort();
}

}  // namespace korvex::fuzz
