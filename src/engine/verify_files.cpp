#include "engine/verify_files.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "engine/store_layout.h"
#include "runtime/platform/files.h"
#include "runtime/platform/memory.h"

namespace korvex::verify {

namespace {

constexpr std::uint64_t listed_per_check = 10;

__attribute__((format(printf, 1, 0))) std::string formatted(const char* format,
                                                            std::va_list arguments) {
  char text[1024];
  std::vsnprintf(text, sizeof text, format, arguments);
  return text;
}

}  // namespace

mapped_file::mapped_file(const std::string& path) {
  // Asked before it is opened: opening a pipe would wait for somebody at its other end.
  const platform::file_status status = platform::status_of(path.c_str());
  if (!status.regular || status.size == 0) return;
  const int fd = platform::open_file(path.c_str(), platform::open_mode::read_only);
  if (fd < 0) return;
  const char* failed_call = nullptr;
  long error = 0;
  data_ = static_cast<const std::byte*>(
      platform::map_file(fd, status.size, true, &native_, &failed_call, &error));
  if (data_ != nullptr) size_ = status.size;
  platform::close_file(fd);
}

mapped_file::~mapped_file() {
  platform::unmap_file(const_cast<std::byte*>(data_), size_, native_);
}

mapped_file::mapped_file(mapped_file&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      native_(std::exchange(other.native_, nullptr)) {}

mapped_file& mapped_file::operator=(mapped_file&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  std::swap(native_, other.native_);
  return *this;
}

void findings::put(verify_severity severity, const char* check, std::string text) {
  std::uint64_t* const counts[] = {&report_.notes, &report_.warnings, &report_.errors};
  ++*counts[static_cast<int>(severity)];
  tally& of_check = tallies_[check];
  of_check.worst = std::max(of_check.worst, severity);
  if (++of_check.count <= listed_per_check)
    report_.findings.push_back({severity, check, std::move(text)});
}

void findings::add(verify_severity severity, const char* check, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  put(severity, check, formatted(format, arguments));
  va_end(arguments);
}

void findings::note(const char* check, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  put(verify_severity::note, check, formatted(format, arguments));
  va_end(arguments);
}

void findings::warning(const char* check, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  put(verify_severity::warning, check, formatted(format, arguments));
  va_end(arguments);
}

void findings::error(const char* check, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  put(verify_severity::error, check, formatted(format, arguments));
  va_end(arguments);
}

void findings::close() {
  for (const auto& [check, of_check] : tallies_) {
    if (of_check.count <= listed_per_check) continue;
    report_.findings.push_back(
        {of_check.worst, check,
         "and " + std::to_string(of_check.count - listed_per_check) + " more"});
  }
}

store_view::store_view(const std::string& directory, const vector_file_names_s& names,
                       findings* out, file_contents* claimed)
    : names_(names) {
  for (std::uint32_t index = 0;; ++index) {
    const std::string file = vector_block_file_name(names, index);
    const std::string path = directory + "/" + file;
    if (!platform::status_of(path.c_str()).exists) return;
    claimed->emplace(file, store_title(names.kind));
    if (!add_block(path, file, out)) return;
  }
}

bool store_view::add_block(const std::string& path, const std::string& file, findings* out) {
  mapped_file block(path);
  if (!block) {
    out->error("blocks", "%s: not a file that can be read", file.c_str());
    return false;
  }
  const auto index = static_cast<std::uint32_t>(blocks_.size());
  // Judged as a copy: the file's own may change while it is in use.
  vector_block_header_s header{};
  if (block.size() >= sizeof header) header = read<vector_block_header_s>(block.data());
  switch (check_vector_block(reinterpret_cast<const std::byte*>(&header), block.size(),
                             names_.record_size, names_.records_per_block, index)) {
    case vector_block_verdict::good:
      break;
    case vector_block_verdict::too_short:
      out->error("blocks", "%s: %llu bytes, a block has %llu", file.c_str(),
                 static_cast<unsigned long long>(block.size()),
                 static_cast<unsigned long long>(sizeof(vector_block_header_s) +
                                                 std::uint64_t{names_.record_size} *
                                                     names_.records_per_block));
      return false;
    case vector_block_verdict::bad_signature:
      out->error("blocks", "%s: does not begin with the signature of a block", file.c_str());
      return false;
    case vector_block_verdict::bad_header:
      out->error("blocks", "%s: its header does not fit block %u of this store", file.c_str(),
                 index);
      return false;
  }
  check_header(header, block.size(), file, out);
  used_.push_back(header.records_used);
  size_ = index * names_.records_per_block + used_.back();
  blocks_.push_back(std::move(block));
  return true;
}

// Words that no reader uses, but that tell of damage.
void store_view::check_header(const vector_block_header_s& header, std::uint64_t bytes,
                              const std::string& file, findings* out) {
  if (header.header_size != sizeof header)
    out->warning("blocks", "%s: header size %u, expected %zu", file.c_str(), header.header_size,
                 sizeof header);
  if (header.file_size != bytes)
    out->warning("blocks", "%s: written for a file of %llu bytes, it has %llu", file.c_str(),
                 static_cast<unsigned long long>(header.file_size),
                 static_cast<unsigned long long>(bytes));
}

std::uint32_t index_view::size() const {
  const std::uint32_t size =
      std::min({vectors().size(), graph().size(), magnitudes().size(), flags().size()});
  // One more is the id that a failed addition left for the next one.
  return clean_close && size == record.added + 2 ? record.added + 1 : size;
}

std::vector<std::uint32_t> index_view::neighbours(std::uint32_t id) const {
  std::vector<std::uint32_t> list;
  for (std::uint32_t position = 0; position < record.shape_capacity; ++position) {
    const std::uint32_t neighbour = slot(id, position);
    if (neighbour == 0) break;
    list.push_back(neighbour);
  }
  return list;
}

bool index_view::is_seed(std::uint32_t id) const {
  for (std::uint32_t probe = 0; probe < probes(); ++probe)
    if (record.probes[probe].seed == id) return true;
  return false;
}

}  // namespace korvex::verify
