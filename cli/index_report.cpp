#include "cli/index_report.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "cli/errors.h"
#include "cli/format.h"
#include "math/metrics.h"

namespace korvex::cli {

namespace {

using json = nlohmann::ordered_json;

const char* name_of(verify_severity severity) {
  if (severity == verify_severity::error) return "error";
  return severity == verify_severity::warning ? "warning" : "note";
}

const char* metric_of(const hnsw_s& record) {
  if (record.distance_type == DISTANCE_L2) return "l2";
  if (record.distance_type == DISTANCE_INNER_PRODUCT) return "ip";
  return record.distance_type == DISTANCE_L2_SQUARE ? "l2sq" : "unset";
}

std::string counted(std::uint64_t n, const char* what) {
  return fmt::format("{} {}{}", grouped(n), what, n == 1 ? "" : "s");
}

std::string points_of(const verify_statistics& counts) {
  return fmt::format("{}: {} live, {} deleted, {} duplicate, {} unlinked",
                     counted(counts.points, "point"), grouped(counts.live), grouped(counts.deleted),
                     grouped(counts.duplicates), grouped(counts.unlinked));
}

json counts_of(const verify_statistics& counts) {
  return {{"points", counts.points},
          {"live", counts.live},
          {"deleted", counts.deleted},
          {"duplicate", counts.duplicates},
          {"unlinked", counts.unlinked}};
}

// The options that an index was built with, by their names in the output.
json configuration_of(const hnsw_s& record) {
  const bool started = record.shape_valid != 0;
  return {{"dimension", record.dimension},
          {"metric", metric_of(record)},
          {"neighbours", started ? record.shape_capacity : record.neighbour_capacity},
          {"index_radius", record.radius},
          {"probes", started ? record.shape_probes : record.pattern_probes},
          {"allocation_units", started ? record.shape_units : record.allocation_units},
          {"labels", (started ? record.shape_labels : record.labels_enabled) != 0},
          {"attributes", (started ? record.shape_attributes : record.attributes_enabled) != 0},
          {"normalize", record.normalize != 0},
          {"duplicate_check", record.duplicate_threshold > 0},
          {"index_check", record.index_check != 0},
          {"disk_cache", record.disk_cache_size},
          {"instance", record.instance_id},
          {"started", started},
          {"closed_in_order", record.clean_close == 1}};
}

std::uint64_t sum(const verify_report& report, std::uint64_t verify_file::*part) {
  std::uint64_t all = 0;
  for (const verify_file& file : report.files) all += file.*part;
  return all;
}

}  // namespace

std::string findings_as_text(const verify_report& report) {
  std::string text = fmt::format("index {} in {}\n", report.name, report.directory);
  for (const verify_finding& finding : report.findings)
    text += fmt::format("{:8} {}: {}\n", name_of(finding.severity), finding.check, finding.text);
  const verify_statistics& counts = report.statistics;
  text += points_of(counts) + "\n";
  text +=
      fmt::format("{}, at most {} a point; {} in {}; {} live points that no link leads to\n",
                  counted(counts.links, "link"), counts.most_links, counted(counts.stars, "star"),
                  counted(counts.star_arrays, "array"), grouped(counts.unreachable));
  text +=
      fmt::format("{}, {}\n", counted(report.errors, "error"), counted(report.warnings, "warning"));
  return text;
}

std::string findings_as_json(const verify_report& report) {
  json findings = json::array();
  for (const verify_finding& finding : report.findings)
    findings.push_back({{"severity", name_of(finding.severity)},
                        {"check", finding.check},
                        {"text", finding.text}});
  const verify_statistics& counts = report.statistics;
  json statistics = counts_of(counts);
  statistics.update({{"links", counts.links},
                     {"most_links", counts.most_links},
                     {"unreachable", counts.unreachable},
                     {"stars", counts.stars},
                     {"star_arrays", counts.star_arrays},
                     {"cached_results", counts.cached_results},
                     {"bloom_units", counts.bloom_units},
                     {"bloom_items", counts.bloom_items}});
  const json all = {
      {"directory", report.directory}, {"name", report.name},     {"in_use", report.in_use},
      {"clean", report.clean()},       {"errors", report.errors}, {"warnings", report.warnings},
      {"notes", report.notes},         {"findings", findings},    {"statistics", statistics}};
  return all.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string index_as_text(const verify_report& report) {
  std::string text = fmt::format("index {} in {}{}\n\n", report.name, report.directory,
                                 report.in_use ? " (in use)" : "");
  const json configuration = configuration_of(report.record);
  for (const auto& [name, value] : configuration.items()) {
    const bool plain = value.is_string();
    text += fmt::format("{:<18} {}\n", name, plain ? value.get<std::string>() : value.dump());
  }
  text += fmt::format("\n{}\n\n", points_of(report.statistics));
  text += fmt::format("{:>15} {:>15}  {}\n", "bytes", "on disk", "file");
  for (const verify_file& file : report.files)
    text += fmt::format("{:>15} {:>15}  {} ({})\n", grouped(file.bytes),
                        grouped(file.allocated_bytes), file.name, file.content);
  text += fmt::format("{:>15} {:>15}  in all\n", grouped(sum(report, &verify_file::bytes)),
                      grouped(sum(report, &verify_file::allocated_bytes)));
  if (report.errors + report.warnings != 0)
    text += fmt::format("\n{} and {}: see korvex verify\n", counted(report.errors, "error"),
                        counted(report.warnings, "warning"));
  return text;
}

std::string index_as_json(const verify_report& report) {
  json files = json::array();
  for (const verify_file& file : report.files)
    files.push_back({{"name", file.name},
                     {"content", file.content},
                     {"bytes", file.bytes},
                     {"allocated_bytes", file.allocated_bytes}});
  const json all = {{"directory", report.directory},
                    {"name", report.name},
                    {"in_use", report.in_use},
                    {"configuration", configuration_of(report.record)},
                    {"counts", counts_of(report.statistics)},
                    {"files", files},
                    {"bytes", sum(report, &verify_file::bytes)},
                    {"allocated_bytes", sum(report, &verify_file::allocated_bytes)},
                    {"errors", report.errors},
                    {"warnings", report.warnings}};
  return all.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

void require_checked(const verify_report& report) {
  if (report.outcome == verify_outcome::checked) return;
  if (report.outcome == verify_outcome::in_use)
    throw tool_error(exit_failed, report.reason + "; close it first, or read it with --force");
  throw tool_error(exit_input, report.reason);
}

}  // namespace korvex::cli
