#include "cli/feed.h"

#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <atomic>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "cli/console.h"
#include "cli/dataset.h"
#include "cli/errors.h"
#include "cli/format.h"
#include "cli/interrupt.h"
#include "korvex/engine.h"
#include "runtime/platform/clock.h"

namespace korvex::cli {

namespace {

constexpr std::size_t block_floats = 1u << 18;
constexpr std::size_t most_block_rows = 256;
// Vectors that may wait to be linked: few, so that the work in hand ends soon after a signal.
constexpr std::uint32_t most_unlinked = 2'048;
constexpr std::uint64_t wait_usec = 2'000;

std::size_t block_rows(std::size_t dimension) {
  return std::clamp<std::size_t>(block_floats / dimension, 1, most_block_rows);
}

// Rows of a file between --skip and --rows.
class row_window {
 public:
  row_window(vector_file& file, const feed_options& options)
      : file_(file),
        block_(block_rows(file.dimension())),
        left_(options.rows == 0 ? ~std::uint64_t{0} : options.rows) {
    values_.resize(block_ * file.dimension());
    for (std::uint64_t skipped = 0; skipped < options.skip;) {
      const std::size_t wanted = std::min<std::uint64_t>(block_, options.skip - skipped);
      if (file_.read(wanted, values_.data()) < wanted)
        throw file_error(options.vectors.path,
                         fmt::format("fewer rows than --skip {}", options.skip));
      skipped += wanted;
    }
  }
  // The next rows; 0 at the end.
  std::size_t next() {
    const std::size_t wanted = std::min<std::uint64_t>(block_, left_);
    const std::size_t got = wanted == 0 ? 0 : file_.read(wanted, values_.data());
    left_ -= got;
    return got;
  }
  const float* values() const { return values_.data(); }

 private:
  vector_file& file_;
  const std::size_t block_;
  std::uint64_t left_;
  std::vector<float> values_;
};

// The next rows; a signal ends the producer of a pipe too, often in the middle of a row.
std::size_t rows_until_signal(row_window& window) {
  try {
    return window.next();
  } catch (const file_error&) {
    if (interrupted() == 0) throw;
    return 0;
  }
}

std::unique_ptr<vector_file> open_labels(const feed_options& options) {
  if (options.labels.empty()) return nullptr;
  auto labels = open_label_file(options.labels);
  std::int64_t skipped = 0;
  for (std::uint64_t i = 0; i < options.skip; ++i) labels->read(1, &skipped);
  return labels;
}

std::vector<std::int64_t> next_labels(vector_file& labels, const feed_options& options,
                                      std::size_t count, std::uint64_t rows_before) {
  std::vector<std::int64_t> values(count);
  const std::size_t got = labels.read(count, values.data());
  if (got != count)
    throw file_error(options.labels,
                     fmt::format("{} labels, expected one for each of {} rows or more",
                                 rows_before + got, rows_before + count));
  const auto negative = std::find_if(values.begin(), values.end(), [](auto v) { return v < 0; });
  if (negative != values.end() && labels.element() != element_type::u64)
    throw file_error(options.labels, fmt::format("the label {}, expected 0 or more", *negative));
  return values;
}

void require_no_more_labels(vector_file* labels, const feed_options& options, std::uint64_t rows) {
  std::int64_t more = 0;
  if (labels == nullptr || options.rows != 0 || labels->read(1, &more) == 0) return;
  throw file_error(options.labels,
                   fmt::format("more labels than the {} rows of {}", rows, options.vectors.path));
}

}  // namespace

void add_feed_options(CLI::App& command, feed_options& options) {
  command
      .add_option("vectors", options.vectors.path,
                  "Vectors: fvecs, bvecs, ivecs, fbin, u8bin, npy, idx, text or HDF5 "
                  "(FILE.hdf5:NAME for another data set than train), plain or .gz; - for standard "
                  "input")
      ->required()
      ->type_name("FILE");
  command
      .add_option("--format", options.format,
                  "Format of an input whose name does not tell, such as -")
      ->check(CLI::IsMember(format_names()));
  command
      .add_option("--labels", options.labels,
                  "A 64-bit label for each vector: text with a number a line, or npy or idx of one "
                  "axis")
      ->type_name("FILE");
  command.add_option("--skip", options.skip, "Leave out the first N rows")->type_name("N");
  command.add_option("--rows", options.rows, "Take N rows at most (0: all)")->type_name("N");
  command.add_flag("--json", options.json, "Print JSON in place of text");
}

void check_feed(const feed_options& options, const metric_choice& metric) {
  if (options.vectors.path == standard_input) return;
  feed_options checked = options;
  checked.vectors.format = format_named(options.format);
  const auto file = open_vector_file(checked.vectors);
  const auto labels = open_labels(options);
  row_window window(*file, options);
  std::atomic<std::uint64_t> rows{0};
  const progress line("checking", file->rows().value_or(0),
                      [&] { return rows.load(std::memory_order_relaxed); });
  while (const std::size_t got = window.next()) {
    stop_if_interrupted("interrupted before anything was added");
    check_finite(options.vectors.path, window.values(), got, file->dimension(),
                 options.skip + rows);
    if (metric.unit)
      check_directions(options.vectors.path, window.values(), got, file->dimension(),
                       options.skip + rows);
    if (labels != nullptr) next_labels(*labels, options, got, rows);
    rows += got;
  }
  require_no_more_labels(labels.get(), options, rows);
  if (rows == 0) throw file_error(options.vectors.path, "no rows");
}

feed::feed(const feed_options& options) : options_(options) {
  vector_input input = options.vectors;
  input.format = format_named(options.format);
  file_ = open_vector_file(input);
}

feed_size feed::size() const {
  feed_size size{file_->dimension(), 0};
  if (!file_->rows() || options_.vectors.path == standard_input) return size;
  const std::uint64_t left = *file_->rows() - std::min(*file_->rows(), options_.skip);
  size.rows = options_.rows == 0 ? left : std::min(left, options_.rows);
  return size;
}

void feed::add_block(disk_index& index, const float* rows, std::size_t count) {
  const std::uint32_t before = index.size();
  if (labels_ == nullptr) {
    ::korvex_add_multiple(index.get(), rows, static_cast<int>(count), nullptr, nullptr);
  } else {
    const std::vector<std::int64_t> labels = next_labels(*labels_, options_, count, added_);
    for (std::size_t i = 0; i < count && index.size() == before + i; ++i)
      ::korvex_add(index.get(), rows + i * index.dimension(),
                   static_cast<std::uint64_t>(labels[i]));
  }
  const std::uint32_t got = index.size() - before;
  added_ += got;
  next_row_ += got;
  if (got == count) return;
  throw tool_error(exit_failed, fmt::format("the index did not take row {} of {}; --log tells more",
                                            options_.skip + next_row_, options_.vectors.path));
}

void feed::let_linking_follow(const disk_index& index) const {
  while (index.size() - index.linked() > most_unlinked && interrupted() == 0)
    platform::sleep_usec(wait_usec);
}

void feed::run(disk_index& index) {
  const std::uint32_t first = index.size();
  const std::uint64_t began = platform::monotonic_ns();
  const progress line("adding", size().rows, [&] { return index.linked() - first; });
  struct link_all {  // also when an error ends the feed
    disk_index& index;
    ~link_all() { ::korvex_wait_finish_adding(index.get()); }
  };
  {
    const link_all at_end{index};
    labels_ = open_labels(options_);
    row_window window(*file_, options_);
    while (interrupted() == 0) {
      const std::size_t got = rows_until_signal(window);
      if (got == 0) break;
      const std::uint64_t row = options_.skip + next_row_;
      check_finite(options_.vectors.path, window.values(), got, index.dimension(), row);
      if (index.metric().unit)
        check_directions(options_.vectors.path, window.values(), got, index.dimension(), row);
      add_block(index, window.values(), got);
      let_linking_follow(index);
    }
    if (interrupted() == 0) require_no_more_labels(labels_.get(), options_, added_);
  }
  seconds_ = static_cast<double>(platform::monotonic_ns() - began) / 1e9;
}

std::string feed_report(const feed& fed, std::uint32_t first, bool json) {
  const std::uint64_t last = first + fed.added() - 1;
  const double rate = static_cast<double>(fed.added()) / std::max(fed.seconds(), 1e-9);
  if (json) {
    nlohmann::ordered_json report = {{"added", fed.added()}};
    if (fed.added() != 0) report.update({{"first_id", first}, {"last_id", last}});
    report.update({{"seconds", fed.seconds()}, {"interrupted", interrupted() != 0}});
    return report.dump() + "\n";
  }
  if (fed.added() == 0) return "added no vectors\n";
  return fmt::format("added {} vector{}, ids {} to {}, in {:.1f} s ({} a second)\n",
                     grouped(fed.added()), fed.added() == 1 ? "" : "s", first, last, fed.seconds(),
                     grouped(static_cast<std::uint64_t>(rate)));
}

void stop_if_feed_was_cut(const feed& fed, const feed_options& options, const index_place& place) {
  std::string text =
      fmt::format("interrupted after {} vectors, which are all there", grouped(fed.added()));
  if (options.vectors.path != standard_input)
    text += fmt::format("; the rest: korvex add {} {} --skip {}", place.directory,
                        options.vectors.path, options.skip + fed.added());
  stop_if_interrupted(text);
}

}  // namespace korvex::cli
