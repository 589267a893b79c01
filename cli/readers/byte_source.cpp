#include "cli/readers/byte_source.h"

#include <fmt/format.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <limits>
#include <system_error>

namespace korvex::cli {

namespace {

// The most that deflate can make of one byte.
constexpr std::uint64_t largest_expansion = 1032;
constexpr unsigned buffer_bytes = 1u << 18;
constexpr std::size_t largest_read = 1u << 30;  // zlib counts in int

std::uint64_t regular_file_bytes(const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (!std::filesystem::exists(status)) throw file_error(path, "there is no such file");
  if (!std::filesystem::is_regular_file(status)) throw file_error(path, "not a regular file");
  const std::uint64_t bytes = std::filesystem::file_size(path, error);
  if (error) throw file_error(path, error.message());
  return bytes;
}

bool begins_like_gzip(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw file_error(path, "cannot be opened: " + std::generic_category().message(errno));
  return file.get() == 0x1f && file.get() == 0x8b;
}

}  // namespace

void byte_source::closer::operator()(gzFile_s* file) const {
  gzclose_r(file);
}

byte_source::byte_source(const std::string& path)
    : path_(path), file_bytes_(regular_file_bytes(path)), compressed_(begins_like_gzip(path)) {
  file_.reset(gzopen(path.c_str(), "rb"));
  if (file_ == nullptr) fail("cannot be opened: " + std::generic_category().message(errno));
  gzbuffer(file_.get(), buffer_bytes);
}

byte_source::~byte_source() = default;

std::optional<std::uint64_t> byte_source::size() const {
  if (compressed_) return std::nullopt;
  return file_bytes_;
}

std::uint64_t byte_source::size_limit() const {
  if (!compressed_) return file_bytes_;
  if (file_bytes_ > std::numeric_limits<std::uint64_t>::max() / largest_expansion)
    return std::numeric_limits<std::uint64_t>::max();
  return file_bytes_ * largest_expansion;
}

std::size_t byte_source::read(void* out, std::size_t size) {
  std::size_t got = 0;
  while (got < size) {
    const auto part = static_cast<unsigned>(std::min(size - got, largest_read));
    const int n = gzread(file_.get(), static_cast<char*>(out) + got, part);
    int code = Z_OK;
    // A stream that is cut off is told as a short read with a note beside it.
    const char* const text = gzerror(file_.get(), &code);
    if (n < 0 || (code != Z_OK && code != Z_STREAM_END)) {
      if (code == Z_BUF_ERROR) fail("the compressed data end too early");
      fail(code == Z_ERRNO ? std::generic_category().message(errno)
                           : fmt::format("damaged compressed data ({})", text));
    }
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  return got;
}

void byte_source::read_exactly(void* out, std::size_t size, const char* what) {
  const std::size_t got = read(out, size);
  if (got != size)
    fail(fmt::format("the file ends inside {}: found {} of {} bytes", what, got, size));
}

void byte_source::expect_end() {
  char more = 0;
  if (read(&more, 1) != 0) fail("more bytes follow than the header announced");
}

std::array<unsigned char, 8> byte_source::peek() {
  std::array<unsigned char, 8> first{};
  read(first.data(), first.size());
  if (gzrewind(file_.get()) != 0) fail("cannot be read from the front again");
  return first;
}

}  // namespace korvex::cli
