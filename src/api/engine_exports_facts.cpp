#include <algorithm>
#include <string>

#include "api/engine_border.h"
#include "api/log_sink.h"
#include "engine/estimate.h"
#include "engine/startup.h"
#include "engine/statistics.h"
#include "engine/verify.h"
#include "math/kernels.h"

// The C names of what tells about an index, and of the log.

using korvex::at_border;
using korvex::on_index;

namespace {

constexpr const char* product_folder = "/nimbra-korvex/";
constexpr const char* default_name = "nimbra-korvex";

korvex_stats_s stats_of(const hnsw_s* index) {
  const korvex::index_statistics counted = korvex::collect_statistics(index);
  korvex_stats_s full{};
  full.dimension = index->dimension;
  full.added = counted.added;
  full.deleted = counted.deleted;
  full.duplicates = counted.duplicates;
  full.unlinked = counted.unlinked;
  full.probes = index->pattern_probes;
  full.constellation = index->neighbour_capacity / 2;
  full.memory_bytes = counted.memory_bytes;
  full.disk_bytes = counted.disk_bytes;
  full.kernels = korvex::chosen_kernels();
  return full;
}

korvex_counts_s counts_of(const hnsw_s* index) {
  korvex_counts_s counts{};
  counts.added = korvex::load_counter(index->added);
  counts.linked = std::min(korvex::load_counter(index->networked), counts.added);
  const std::uint32_t hidden = index->runtime->hidden.load();
  counts.live = counts.added - std::min(hidden, counts.added);
  return counts;
}

// What the stores were built with counts for more than what the options say now.
korvex_description_s description_of(const hnsw_s& record) {
  const bool built = record.shape_valid != 0;
  korvex_description_s facts{};
  facts.dimension = record.dimension;
  facts.metric = static_cast<int32_t>(record.distance_type);
  facts.normalize = record.normalize != 0 ? 1 : 0;
  facts.labels = (built ? record.shape_labels : record.labels_enabled) != 0 ? 1 : 0;
  facts.attributes = (built ? record.shape_attributes : record.attributes_enabled) != 0 ? 1 : 0;
  facts.probes = built ? record.shape_probes : record.pattern_probes;
  facts.constellation = (built ? record.shape_capacity : record.neighbour_capacity) / 2;
  facts.radius = record.radius;
  facts.added = korvex::load_counter(record.added);
  facts.on_disk = record.on_disk;
  return facts;
}

int inspect(unsigned instance_id, const char* base_path, const char* name,
            korvex_description_s* description) {
  korvex::verify_options options;
  options.summary = true;
  options.force = true;
  const korvex::verify_report report = korvex::korvex_verify_directory(
      base_path + std::string(product_folder) + std::to_string(instance_id),
      name != nullptr && *name != '\0' ? name : default_name, options);
  if (report.outcome == korvex::verify_outcome::not_found) return 1;
  if (!report.record_read) return -1;
  korvex_description_s facts = description_of(report.record);
  facts.on_disk = 1;
  return korvex::hand_over_record(facts, description) ? 0 : -1;
}

}  // namespace

extern "C" {

int korvex_get_stats(hnsw_s* index, korvex_stats_s* stats) {
  return on_index(index, "korvex_get_stats", -1,
                  [&] { return korvex::hand_over_record(stats_of(index), stats) ? 0 : -1; });
}

int korvex_get_counts(hnsw_s* index, korvex_counts_s* counts) {
  return on_index(index, "korvex_get_counts", -1,
                  [&] { return korvex::hand_over_record(counts_of(index), counts) ? 0 : -1; });
}

int korvex_describe(hnsw_s* index, korvex_description_s* description) {
  return on_index(index, "korvex_describe", -1, [&] {
    return korvex::hand_over_record(description_of(*index), description) ? 0 : -1;
  });
}

int korvex_inspect(uint8_t instance_id, const char* base_path, const char* name,
                   korvex_description_s* description) {
  if (base_path == nullptr || *base_path == '\0' || description == nullptr) return -1;
  return at_border("korvex_inspect", -1,
                   [&] { return inspect(instance_id, base_path, name, description); });
}

int korvex_estimate(const korvex_description_s* description, uint64_t vectors,
                    korvex_estimate_s* estimate) {
  if (description == nullptr || estimate == nullptr || description->dimension == 0) return -1;
  korvex_description_s given{};
  __builtin_memcpy(&given, description, std::min<size_t>(description->size, sizeof given));
  const korvex::index_plan plan{given.dimension,       vectors,
                                given.constellation,   given.labels != 0,
                                given.attributes != 0, given.on_disk != 0};
  const korvex::index_estimate sizes = korvex::estimate_index(plan);
  *estimate = {sizes.memory_bytes, sizes.disk_bytes};
  return 0;
}

const char* korvex_kernels(void) {
  return at_border("korvex_kernels", "", [] {
    korvex::korvex_process_start();
    return korvex::chosen_kernels();
  });
}

const char* korvex_version(void) {
  return KORVEX_VERSION;
}

int korvex_set_log_sink(korvex_log_fn sink, void* context) {
  return at_border("korvex_set_log_sink", -1, [&] { return korvex::set_log_sink(sink, context); });
}

int korvex_set_log_descriptor(int descriptor) {
  return at_border("korvex_set_log_descriptor", -1,
                   [&] { return korvex::set_log_descriptor(descriptor); });
}

int korvex_wait_log(int timeout_ms) {
  return korvex::log_wait_empty(timeout_ms);
}

}  // extern "C"
