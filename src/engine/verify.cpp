#include "engine/verify.h"

#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <new>
#include <span>

#include "engine/index_files.h"
#include "engine/store_layout.h"
#include "engine/verify_files.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/files.h"
#include "storage/persistent_allocator_format.h"

namespace korvex {

namespace verify {

namespace {

constexpr const char* product_folder = "nimbra-korvex";
constexpr const char* default_name = "nimbra-korvex";

std::string file_of(const std::string& directory, const std::string& name) {
  return directory + "/" + name + "." + index_extension;
}

bool exists(const std::string& path) {
  return platform::status_of(path.c_str()).exists;
}

std::vector<std::string> index_names(const std::string& directory) {
  const std::string ending = std::string(".") + index_extension;
  std::vector<std::string> names;
  for (const platform::directory_entry& entry : platform::list_directory(directory.c_str())) {
    if (!entry.regular || !entry.name.ends_with(ending) ||
        !holds_index(directory + "/" + entry.name))
      continue;
    names.push_back(entry.name.substr(0, entry.name.size() - ending.size()));
  }
  return names;
}

// Why no index was found at any of the places.
std::string why_none(const std::string& base, std::span<const std::string> places) {
  const platform::file_status status = platform::status_of(base.c_str());
  if (!status.exists) return base + ": no such directory, or not one that can be entered";
  if (!status.directory) return base + ": neither a directory nor an index file";
  std::string reason = "no index in " + base;
  if (exists(base + "/" + product_folder) && !exists(places[1]))
    reason += "; " + places[1] + " cannot be read";
  for (const std::string& place : places)
    for (const platform::directory_entry& entry : platform::list_directory(place.c_str())) {
      if (!entry.name.ends_with(std::string(".") + index_extension)) continue;
      const std::string path = place + "/" + entry.name;
      if (holds_block(path)) continue;
      const bool readable = static_cast<bool>(mapped_file(path));
      reason += "; " + path +
                (entry.regular && entry.size == 0 ? " is empty"
                 : readable                       ? " does not begin as an index file does"
                                                  : " cannot be read");
    }
  return reason;
}

// Fills in directory and name. False with a reason when there is no such index, or no telling
// which.
bool locate(const std::string& given, const std::string& name, verify_report* report) {
  std::string base = given;
  while (base.size() > 1 && base.back() == '/') base.pop_back();
  if (name.empty() && holds_index(base)) {  // the index file itself was given
    const std::filesystem::path path(base);
    report->directory = path.has_parent_path() ? path.parent_path().string() : ".";
    report->name = path.stem().string();
    return path.extension() == std::string(".") + index_extension;
  }
  const std::string places[] = {base, base + "/" + product_folder + "/0", base + "/0"};
  const std::string wanted = name.empty() ? default_name : name;
  for (const std::string& place : places) {
    report->directory = place;
    report->name = wanted;
    if (exists(file_of(place, wanted))) return true;
  }
  for (const std::string& place : places) {
    const std::vector<std::string> names = index_names(place);
    if (names.empty()) continue;
    report->directory = place;
    if (name.empty() && names.size() == 1) {
      report->name = names.front();
      return true;
    }
    report->reason = name.empty() ? "several indexes in " + place + ", say which:"
                                  : "no index " + name + " in " + place + ", there is:";
    for (const std::string& each : names) report->reason += " " + each;
    return false;
  }
  report->reason = why_none(base, places);
  return false;
}

// Asks for the lock that an open index holds and gives it back at once. A file that cannot be
// opened is not in use.
bool in_use(const std::string& path) {
  constexpr int attempts = 5;  // somebody else may just be asking
  const int fd = platform::open_file(path.c_str(), platform::open_mode::read_only);
  if (fd < 0) return false;
  bool free = false;
  for (int i = 0; i < attempts && !free; ++i) {
    if (i != 0) platform::sleep_usec(1000);
    free = platform::lock_file(fd) == 0;
  }
  if (free) platform::unlock_file(fd);
  platform::close_file(fd);
  return !free;
}

// What a compaction that was cut off had saved of the index file: it counts in its place.
class saved_part {
 public:
  saved_part(const std::string& path, std::uint64_t file_size, findings* out) {
    const platform::file_status status = platform::status_of(path.c_str());
    constexpr std::uint64_t digest_bytes = sizeof(XXH64_hash_t);
    if (!status.regular || status.size < persistent_header_bytes + digest_bytes ||
        status.size > file_size + digest_bytes)
      return;
    bytes_ = std::make_unique<std::byte[]>(status.size);
    const int fd = platform::open_file(path.c_str(), platform::open_mode::read_only);
    const bool whole = fd >= 0 && platform::read_at(fd, bytes_.get(), status.size, 0) ==
                                      static_cast<std::int64_t>(status.size);
    platform::close_file(fd);
    const std::uint64_t used = status.size - digest_bytes;
    persistent_header_s header;
    if (!whole || XXH64(bytes_.get(), used, 0) != read<XXH64_hash_t>(bytes_.get() + used) ||
        persistent_read_header(bytes_.get(), used, file_size, &header) !=
            persistent_header_fault::none ||
        header.used_size != used)
      return;
    used_ = used;
    out->warning("index file", "a compaction was cut off: the next opening puts %llu bytes back",
                 static_cast<unsigned long long>(used));
  }

  index_bytes instead_of(const mapped_file& file) const {
    if (used_ == 0) return {file.data(), file.size(), file.size()};
    return {bytes_.get(), used_, file.size()};
  }

 private:
  std::unique_ptr<std::byte[]> bytes_;
  std::uint64_t used_ = 0;
};

class directory_check {
 public:
  directory_check(const verify_options& options, verify_report* report)
      : options_(options), report_(*report), out_(report) {}

  void run() {
    const std::string path = file_of(report_.directory, report_.name);
    const mapped_file file(path);
    if (!file) {
      report_.outcome = verify_outcome::unreadable;
      report_.reason = path + ": not a file that can be read";
      return;
    }
    index_.directory = report_.directory;
    index_.name = report_.name;
    index_.claimed.emplace(report_.name + "." + index_extension, "index");
    const saved_part saved(path + ".compact", file.size(), &out_);
    check(saved.instead_of(file));
    list_files();
    out_.close();
  }

 private:
  void check(const index_bytes& file) {
    if (!check_allocator(file, &out_)) return;
    report_.record_read = find_block(file, record_block_id, sizeof(hnsw_s)) != nullptr;
    const bool sound = check_record(file, report_.directory, &report_.record, &out_);
    if (!sound) return;
    if (report_.record.shape_valid == 0) {
      out_.note("record", "the index was created and never started: it holds no points");
      return;
    }
    index_.record = report_.record;
    index_.clean_close = report_.record.clean_close == 1;
    check_stores(file);
  }

  void check_stores(const index_bytes& file) {
    for (std::uint8_t kind = 1; kind <= star_store_kind; ++kind) {
      if (!has_store(index_.record, kind)) continue;
      index_.stores[kind - 1] = store_view(
          index_.directory, store_files(index_.record, index_.name, kind), &out_, &index_.claimed);
    }
    check_counters(index_, &out_);
    check_points(index_, options_.summary, &report_.statistics, &out_);
    verify_statistics unused;
    verify_statistics* const statistics = options_.summary ? &unused : &report_.statistics;
    if (!options_.summary && index_.size() != 0) {
      const auto stars = check_hashes(index_, file, statistics, &out_);
      check_reach(index_, stars, statistics, &out_);
    }
    check_cache(&index_, statistics, &out_);
    check_bloom(&index_, &report_.statistics, &out_);
  }

  void list_files() {
    const std::string saved = report_.name + "." + index_extension + ".compact";
    index_.claimed.emplace(saved, "saved index");
    for (const platform::directory_entry& entry :
         platform::list_directory(report_.directory.c_str())) {
      const auto known = index_.claimed.find(entry.name);
      const bool stray = known == index_.claimed.end();
      const std::string path = report_.directory + "/" + entry.name;
      if (stray && (!is_block_file_of(report_.name, entry.name) || holds_index(path))) continue;
      report_.files.push_back({entry.name, stray ? "unknown" : known->second, entry.size,
                               platform::allocated_bytes(path.c_str())});
      if (stray && report_.record.shape_valid != 0)
        out_.warning("blocks", "%s: no store of this index reads it", entry.name.c_str());
    }
  }

  const verify_options options_;
  verify_report& report_;
  findings out_;
  index_view index_;
};

void run(const std::string& directory, const std::string& name, const verify_options& options,
         verify_report* report) {
  if (!locate(directory, name, report)) {
    report->outcome = verify_outcome::not_found;
    return;
  }
  const std::string path = file_of(report->directory, report->name);
  report->in_use = in_use(path);
  if (report->in_use && !options.force) {
    report->outcome = verify_outcome::in_use;
    report->reason = path + " is in use; what changes while it is read would look like damage";
    return;
  }
  directory_check(options, report).run();
  // Opened meanwhile: nobody was kept out.
  if (!options.force && in_use(path)) {
    report->in_use = true;
    report->outcome = verify_outcome::in_use;
    report->reason = path + " was opened while it was read";
  }
}

}  // namespace

}  // namespace verify

verify_report korvex_verify_directory(const std::string& directory, const std::string& name,
                                      const verify_options& options) {
  verify_report report;
  try {
    verify::run(directory, name, options, &report);
  } catch (const std::bad_alloc&) {
    report.outcome = verify_outcome::unreadable;
    report.reason = "not enough memory to check the index";
  }
  return report;
}

}  // namespace korvex
