#include "cli/readers/byte_source.h"

#include <fmt/format.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <system_error>

namespace korvex::cli {

namespace {

// The most that deflate can make of one byte.
constexpr std::uint64_t largest_expansion = 1032;
constexpr std::size_t buffer_bytes = 1u << 18;
constexpr std::uint64_t unknown_bytes = std::numeric_limits<std::uint64_t>::max();

std::uint64_t regular_file_bytes(const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (!std::filesystem::exists(status)) throw file_error(path, "there is no such file");
  if (!std::filesystem::is_regular_file(status)) throw file_error(path, "not a regular file");
  const std::uint64_t bytes = std::filesystem::file_size(path, error);
  if (error) throw file_error(path, error.message());
  return bytes;
}

}  // namespace

// Bytes of a file, of standard input or of memory, through a buffer.
class byte_source::raw_input {
 public:
  explicit raw_input(const std::string& path) : path_(path) {
    if (path == standard_input) {
      stream_ = stdin;
      bytes_ = unknown_bytes;
    } else {
      bytes_ = regular_file_bytes(path);
      file_.reset(std::fopen(path.c_str(), "rb"));
      stream_ = file_.get();
    }
    if (stream_ == nullptr)
      throw file_error(path, "cannot be opened: " + std::generic_category().message(errno));
    buffer_.resize(buffer_bytes);
    next_ = end_ = buffer_.data();
  }
  raw_input(const std::string& name, std::string_view bytes)
      : path_(name),
        bytes_(bytes.size()),
        next_(reinterpret_cast<const unsigned char*>(bytes.data())),
        end_(next_ + bytes.size()) {}

  std::uint64_t bytes() const { return bytes_; }  // unknown_bytes: only the end tells
  const unsigned char* next() const { return next_; }
  std::size_t available() const { return static_cast<std::size_t>(end_ - next_); }
  void skip(std::size_t size) { next_ += size; }

  // Makes `size` bytes available, fewer at the end only. At most a buffer.
  void want(std::size_t size) {
    while (available() < size && stream_ != nullptr) {
      std::memmove(buffer_.data(), next_, available());
      end_ = buffer_.data() + available();
      next_ = buffer_.data();
      const std::size_t room = buffer_.size() - available();
      const std::size_t got = std::fread(buffer_.data() + available(), 1, room, stream_);
      if (got < room) finish();
      end_ += got;
    }
  }
  std::size_t read(unsigned char* out, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
      if (available() == 0) want(1);
      const std::size_t part = std::min(size - done, available());
      if (part == 0) break;
      std::memcpy(out + done, next_, part);
      skip(part);
      done += part;
    }
    return done;
  }

 private:
  struct file_closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  void finish() {
    if (std::ferror(stream_) != 0) throw file_error(path_, std::generic_category().message(errno));
    stream_ = nullptr;
  }

  const std::string path_;
  std::uint64_t bytes_ = 0;
  std::FILE* stream_ = nullptr;  // null: nothing more comes
  std::unique_ptr<std::FILE, file_closer> file_;
  std::vector<unsigned char> buffer_;
  const unsigned char* next_ = nullptr;
  const unsigned char* end_ = nullptr;
};

// Unpacks gzip members one after the other.
class byte_source::unpacker {
 public:
  explicit unpacker(const byte_source& source) : source_(source) {
    constexpr int gzip_only = 16 + MAX_WBITS;
    if (inflateInit2(&stream_, gzip_only) != Z_OK) throw std::bad_alloc();
  }
  ~unpacker() { inflateEnd(&stream_); }
  unpacker(const unpacker&) = delete;
  unpacker& operator=(const unpacker&) = delete;

  std::size_t read(raw_input& raw, unsigned char* out, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
      if (raw.available() == 0) raw.want(1);
      if (between_members_ && raw.available() == 0) break;
      if (raw.available() == 0) source_.fail("the compressed data end too early");
      done += unpack(raw, out + done, size - done);
    }
    return done;
  }

 private:
  std::size_t unpack(raw_input& raw, unsigned char* out, std::size_t size) {
    constexpr std::size_t most = 1u << 30;  // zlib counts in unsigned
    if (between_members_) inflateReset(&stream_);
    between_members_ = false;
    const std::size_t input = std::min(raw.available(), most);
    const std::size_t room = std::min(size, most);
    stream_.next_in = const_cast<unsigned char*>(raw.next());
    stream_.avail_in = static_cast<unsigned>(input);
    stream_.next_out = out;
    stream_.avail_out = static_cast<unsigned>(room);
    const int code = inflate(&stream_, Z_NO_FLUSH);
    if (code != Z_OK && code != Z_STREAM_END)
      source_.fail(fmt::format("damaged compressed data ({})",
                               stream_.msg != nullptr ? stream_.msg : zError(code)));
    raw.skip(input - stream_.avail_in);
    between_members_ = code == Z_STREAM_END;
    return room - stream_.avail_out;
  }

  const byte_source& source_;
  z_stream stream_{};
  bool between_members_ = false;
};

byte_source::byte_source(const std::string& path)
    : path_(path == standard_input ? "standard input" : path),
      raw_(std::make_unique<raw_input>(path)) {
  start();
}

byte_source::byte_source(const std::string& name, std::string_view bytes)
    : path_(name), raw_(std::make_unique<raw_input>(name, bytes)) {
  start();
}

byte_source::~byte_source() = default;

void byte_source::start() {
  raw_->want(2);
  if (raw_->available() >= 2 && raw_->next()[0] == 0x1f && raw_->next()[1] == 0x8b)
    unpacker_ = std::make_unique<unpacker>(*this);
}

std::optional<std::uint64_t> byte_source::size() const {
  if (unpacker_ != nullptr || raw_->bytes() == unknown_bytes) return std::nullopt;
  return raw_->bytes();
}

std::uint64_t byte_source::size_limit() const {
  if (unpacker_ == nullptr) return raw_->bytes();
  if (raw_->bytes() > unknown_bytes / largest_expansion) return unknown_bytes;
  return raw_->bytes() * largest_expansion;
}

std::size_t byte_source::read_content(unsigned char* out, std::size_t size) {
  return unpacker_ != nullptr ? unpacker_->read(*raw_, out, size) : raw_->read(out, size);
}

std::size_t byte_source::read(void* out, std::size_t size) {
  auto* const bytes = static_cast<unsigned char*>(out);
  const std::size_t first = std::min(size, ahead_.size());
  std::copy_n(ahead_.begin(), first, bytes);
  ahead_.erase(ahead_.begin(), ahead_.begin() + static_cast<std::ptrdiff_t>(first));
  return first + read_content(bytes + first, size - first);
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
  if (ahead_.empty()) {
    ahead_.resize(first.size());
    ahead_.resize(read_content(ahead_.data(), ahead_.size()));
  }
  std::copy(ahead_.begin(), ahead_.end(), first.begin());
  return first;
}

}  // namespace korvex::cli
