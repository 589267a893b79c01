#include "cli/disk_index.h"

#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <filesystem>

#include "cli/console.h"
#include "cli/errors.h"
#include "engine/runtime.h"
#include "engine/verify.h"
#include "korvex/engine.h"
#include "math/topology.h"
#include "runtime/platform/files.h"

namespace korvex::cli {

namespace {

namespace fs = std::filesystem;

constexpr const char* product_folder = "nimbra-korvex";
constexpr const char* default_name = "nimbra-korvex";
constexpr unsigned instance = 0;
constexpr int flag_deleted_only = 2;
constexpr int flags_of_hidden = 2 | 4;
constexpr std::uint64_t fewest_units = 1'000;
constexpr std::uint64_t most_units = 1'000'000;

int threads_or_cores(int threads) {
  return threads > 0 ? threads : cpu_count();
}

// Files grow in steps of so many vectors: for a small index a step that just holds it, so that the
// files are not long and empty.
std::uint32_t units_for(std::uint64_t rows) {
  if (rows == 0) return 0;
  const std::uint64_t wanted = (rows / fewest_units + 1) * fewest_units;
  return static_cast<std::uint32_t>(std::min(wanted, most_units));
}

std::vector<std::string> names_in(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : platform::list_directory(directory.c_str())) names.push_back(entry.name);
  return names;
}

// What korvex_init was or would be called with to reach the files in `directory`.
std::string base_of(const std::string& directory, unsigned instance_id) {
  const fs::path path = fs::path(directory).lexically_normal();
  const std::string folder = std::to_string(instance_id);
  if (path.filename() != folder || path.parent_path().filename() != product_folder)
    throw tool_error(exit_input, fmt::format("{}: an index is opened through the directory that "
                                             "holds {}/{}, and these files are not in one",
                                             directory, product_folder, folder));
  const std::string base = path.parent_path().parent_path().string();
  return base.empty() ? "." : base;
}

verify_report looked_up(const index_place& place) {
  verify_options options;
  options.summary = true;
  return korvex_verify_directory(place.directory, place.name, options);
}

void require_openable(const verify_report& report, bool for_writing) {
  if (report.outcome == verify_outcome::in_use)
    throw tool_error(exit_failed, report.directory + "/" + report.name +
                                      " is in use: one process at a time may have it open");
  if (report.outcome != verify_outcome::checked) throw tool_error(exit_input, report.reason);
  if (!report.record_read)
    throw tool_error(exit_input,
                     report.directory + "/" + report.name +
                         ": no configuration can be read: " + report.findings.front().text);
  if (report.errors == 0) return;
  const std::string text = fmt::format("{}/{} is damaged ({} errors): see korvex verify",
                                       report.directory, report.name, report.errors);
  if (for_writing) throw tool_error(exit_input, text);
  note(text);
}

}  // namespace

void add_place_options(CLI::App& command, index_place& place) {
  command.add_option("index", place.directory, "Directory of the index")
      ->required()
      ->type_name("DIR");
  command
      .add_option("--name", place.name,
                  "Name of the index (default: the only one in the directory; a new one is called "
                  "nimbra-korvex)")
      ->type_name("NAME");
}

std::unique_ptr<disk_index> disk_index::create(const index_place& place, const index_shape& shape,
                                               int threads) {
  std::unique_ptr<disk_index> made(new disk_index);
  disk_index& index = *made;
  index.name_ = place.name.empty() ? default_name : place.name;
  if (index.name_.find_first_of("/\\") != std::string::npos)
    throw tool_error(exit_usage, "--name " + index.name_ + ": expected a name without slashes");
  index.directory_ = place.directory + "/" + product_folder + "/" + std::to_string(instance);
  if (looked_up({place.directory, index.name_}).outcome != verify_outcome::not_found)
    throw tool_error(exit_failed, fmt::format("{} holds an index {} already: add to it with korvex "
                                              "add, or choose another directory or --name",
                                              place.directory, index.name_));
  index.base_existed_ = fs::exists(place.directory);
  index.files_before_ = names_in(index.directory_);
  index.metric_ = shape.metric;
  index.created_ = true;
  index.record_ =
      ::korvex_init(shape.dimension, instance, place.directory.c_str(), index.name_.c_str());
  if (index.record_ == nullptr)
    throw tool_error(exit_output, place.directory + ": the index could not be created");
  hnsw_s* const record = index.record_;
  ::korvex_set_distance_type(record, static_cast<int>(shape.metric.type));
  ::korvex_set_normalize(record, shape.metric.unit ? 1 : 0);
  ::korvex_set_neighbors_count(record, shape.constellation);
  ::korvex_set_radius(record, shape.radius);
  ::korvex_set_partitions(record, shape.probes);
  ::korvex_set_alloc_units(record, units_for(shape.expected_rows), 0);
  ::korvex_enable_label(record, shape.labels ? 1 : 0);
  ::korvex_set_threads(record, threads_or_cores(threads));
  if (::korvex_init_memory(record) != 0)
    throw tool_error(exit_output, place.directory + ": the index could not be started");
  return made;
}

std::unique_ptr<disk_index> disk_index::open(const index_place& place, int threads,
                                             bool for_writing) {
  const verify_report report = looked_up(place);
  require_openable(report, for_writing);
  std::unique_ptr<disk_index> made(new disk_index);
  disk_index& index = *made;
  index.directory_ = report.directory;
  index.name_ = report.name;
  index.metric_ = metric_of(report.record.distance_type, report.record.normalize != 0);
  index.record_ = ::korvex_init(
      report.record.dimension, static_cast<std::uint8_t>(report.record.instance_id),
      base_of(report.directory, report.record.instance_id).c_str(), report.name.c_str());
  if (index.record_ == nullptr)
    throw tool_error(exit_failed, report.directory + "/" + report.name + " could not be opened");
  ::korvex_set_threads(index.record_, threads_or_cores(threads));
  if (::korvex_init_memory(index.record_) != 0)
    throw tool_error(exit_failed, report.directory + "/" + report.name + " could not be started");
  return made;
}

disk_index::~disk_index() {
  if (record_ != nullptr) ::korvex_free(record_);
  if (created_) remove_created();
}

bool disk_index::has_labels() const {
  return record_->shape_labels != 0;
}

std::uint32_t disk_index::size() const {
  return load_counter(record_->added);
}

std::uint32_t disk_index::linked() const {
  return load_counter(record_->networked);
}

bool disk_index::hidden(std::uint32_t id) const {
  return ::korvex_is_flag_set_internal(record_, id + 1, flags_of_hidden) != 0;
}

bool disk_index::deleted(std::uint32_t id) const {
  return ::korvex_is_flag_set_internal(record_, id + 1, flag_deleted_only) != 0;
}

void disk_index::close() {
  const int synced = ::korvex_sync_to_disk(record_, 0);
  ::korvex_free(record_);
  record_ = nullptr;
  if (synced != 0)
    throw tool_error(exit_output, directory_ + "/" + name_ + " could not be brought to its device");
}

// The files of the new index; those of others in the directory stay, and so does the directory then.
void disk_index::remove_created() {
  for (const std::string& name : names_in(directory_)) {
    const bool before =
        std::find(files_before_.begin(), files_before_.end(), name) != files_before_.end();
    if (!before && name.starts_with(name_))
      platform::remove_file((directory_ + "/" + name).c_str());
  }
  std::error_code ignored;
  fs::path folder = directory_;
  const int levels = base_existed_ ? 2 : 3;
  for (int level = 0; level < levels; ++level, folder = folder.parent_path())
    if (!fs::remove(folder, ignored)) return;
}

}  // namespace korvex::cli
