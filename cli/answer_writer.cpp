#include "cli/answer_writer.h"

#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <limits>
#include <vector>

#include "korvex/engine.h"

namespace korvex::cli {

namespace {

// text, json, ivecs or npy.
std::string kind_of(const answer_options& options) {
  if (options.to != "auto") return options.to;
  if (options.output.ends_with(".json") || options.output.ends_with(".jsonl")) return "json";
  const vector_format format = format_of_path(options.output);
  return format == vector_format::ivecs || format == vector_format::npy ? name_of(format) : "text";
}

}  // namespace

void add_answer_options(CLI::App& command, answer_options& options) {
  command
      .add_option("--to", options.to,
                  "Format of the results: text, json (a line a query), ivecs or npy; auto goes by "
                  "the name of --output, and is text otherwise")
      ->check(CLI::IsMember({"auto", "text", "json", "ivecs", "npy"}));
  command.add_option("-o,--output", options.output, "File for the results (default: stdout)")
      ->type_name("FILE");
  command
      .add_option("--distances", options.distances,
                  "File for the distances alone, a row of k each: .fvecs, .fbin, .npy or .txt")
      ->type_name("FILE");
}

answer_writer::answer_writer(const answer_options& options, const disk_index& index, int k,
                             std::uint64_t rows)
    : index_(index), json_(kind_of(options) == "json") {
  const auto width = static_cast<std::size_t>(k);
  const std::string kind = kind_of(options);
  if (kind == "text" || kind == "json")
    lines_ = std::make_unique<output_file>(options.output);
  else
    ids_ = std::make_unique<vector_writer>(options.output, format_named(kind), element_type::i64,
                                           width, rows);
  if (!options.distances.empty())
    distances_ =
        std::make_unique<vector_writer>(options.distances, output_format(options.distances, "auto"),
                                        element_type::f32, width, rows);
}

std::uint64_t answer_writer::label(std::uint32_t id) const {
  return ::korvex_get_label(index_.get(), id);
}

std::string answer_writer::line_text(const answer_rows& answers, std::size_t row) const {
  std::string text;
  for (std::size_t i = 0; i < answers.counts[row]; ++i) {
    const std::uint32_t id = answers.ids[row * answers.k + i];
    const float distance = index_.metric().shown(answers.distances[row * answers.k + i]);
    text += fmt::format("{}\t{}\t{}\t{}", next_query_ + row, i + 1, id, distance);
    if (index_.has_labels()) text += fmt::format("\t{}", label(id));
    text += '\n';
  }
  return text;
}

std::string answer_writer::line_json(const answer_rows& answers, std::size_t row) const {
  std::string ids, distances, labels;
  for (std::size_t i = 0; i < answers.counts[row]; ++i) {
    const char* const comma = i == 0 ? "" : ",";
    const std::uint32_t id = answers.ids[row * answers.k + i];
    ids += fmt::format("{}{}", comma, id);
    distances +=
        fmt::format("{}{}", comma, index_.metric().shown(answers.distances[row * answers.k + i]));
    if (index_.has_labels()) labels += fmt::format("{}{}", comma, label(id));
  }
  std::string line = fmt::format("{{\"query\":{},\"ids\":[{}],\"distances\":[{}]",
                                 next_query_ + row, ids, distances);
  if (index_.has_labels()) line += fmt::format(",\"labels\":[{}]", labels);
  return line + "}\n";
}

void answer_writer::write_matrices(const answer_rows& answers) {
  const std::size_t n = answers.counts.size();
  std::vector<double> row(answers.k);
  for (std::size_t query = 0; query < n; ++query) {
    const std::size_t found = answers.counts[query];
    const std::size_t first = query * answers.k;
    if (ids_ != nullptr) {
      for (std::size_t i = 0; i < answers.k; ++i)
        row[i] = i < found ? static_cast<double>(answers.ids[first + i]) : -1.0;
      ids_->write(row.data(), 1);
    }
    if (distances_ == nullptr) continue;
    for (std::size_t i = 0; i < answers.k; ++i)
      row[i] = i < found ? static_cast<double>(index_.metric().shown(answers.distances[first + i]))
                         : std::numeric_limits<double>::quiet_NaN();
    distances_->write(row.data(), 1);
  }
}

void answer_writer::write(const answer_rows& answers) {
  if (lines_ != nullptr) {
    for (std::size_t row = 0; row < answers.counts.size(); ++row)
      lines_->write(json_ ? line_json(answers, row) : line_text(answers, row));
    lines_->flush();
  }
  write_matrices(answers);
  next_query_ += answers.counts.size();
}

void answer_writer::commit() {
  if (lines_ != nullptr) lines_->commit();
  if (ids_ != nullptr) ids_->commit();
  if (distances_ != nullptr) distances_->commit();
}

}  // namespace korvex::cli
