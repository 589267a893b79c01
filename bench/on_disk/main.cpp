// An index on disk beside one in memory: reopening in another process, adding in two halves, speed with warm pages, and
// what the disk cache does with cold ones. Each index lives in a process of its own.
#include <fmt/core.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <filesystem>
#include <limits>
#include <thread>

#include "child.h"
#include "dataset.h"
#include "index.h"
#include "math/kernels.h"
#include "math/metrics.h"
#include "runtime/log.h"
#include "runtime/platform/faults.h"
#include "truth.h"

namespace korvex::on_disk {

namespace {

namespace fs = std::filesystem;
using numbers = std::vector<double>;

constexpr std::uint64_t log_ring_bytes = 64'000;
constexpr double megabyte = 1e6;

struct options {
  std::string directory = ".";
  std::string fashion_directory = "/usr/share/datasets/fashion-mnist";
  std::vector<std::string> parts = {"reopen", "halves", "speed", "cache"};
  std::size_t n_points = std::numeric_limits<std::size_t>::max();
  std::size_t n_queries = 1'000;
  int rounds = 21;
  int cold_rounds = 3;
  std::vector<unsigned long long> caches = {50, 256'000'000};
  std::string log;
  index_settings index;
};

struct bench {
  options chosen;
  compare::dataset data;
  compare::exact_truth truth;
  index_settings whole;  // the index of all vectors, kept from part to part
};

// In the child: the log belongs to it.
void open_log(const bench& b) {
  log_init(log_ring_bytes, 0);
  log_setfd(0);
  if (!b.chosen.log.empty()) log_setpath(b.chosen.log.c_str());
}

double median(numbers values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double recall(const bench& b, const std::vector<std::uint32_t>& ids) {
  return compare::recall_of(b.truth, b.data, ids);
}

numbers packed(numbers head, const answer_lists& lists) {
  head.insert(head.end(), lists.ids.begin(), lists.ids.end());
  head.insert(head.end(), lists.distances.begin(), lists.distances.end());
  return head;
}

answer_lists unpacked(const numbers& all, std::size_t head) {
  answer_lists lists;
  const auto middle = static_cast<std::ptrdiff_t>(head + (all.size() - head) / 2);
  for (auto at = all.begin() + static_cast<std::ptrdiff_t>(head); at != all.begin() + middle; ++at)
    lists.ids.push_back(static_cast<std::uint32_t>(*at));
  for (auto at = all.begin() + middle; at != all.end(); ++at)
    lists.distances.push_back(static_cast<float>(*at));
  return lists;
}

struct built_index {
  double build_seconds = 0;
  double close_seconds = 0;
  answer_lists lists;
};

// Adds rows [first, last) to the index of `settings`, asks all queries and closes it.
built_index build(const bench& b, const index_settings& settings, std::size_t first,
                  std::size_t last) {
  const numbers told = in_child([&] {
    open_log(b);
    auto index = std::make_unique<host_index>(settings);
    const double begin = seconds_now();
    index->add(b.data.base, first, last);
    const double built = seconds_now() - begin;
    const answer_lists lists = index->ask(b.data.queries, b.data.queries.rows);
    const double close_begin = seconds_now();
    index.reset();
    return packed({built, seconds_now() - close_begin}, lists);
  });
  return {told[0], told[1], unpacked(told, 2)};
}

struct reopened_index {
  double first_answer_seconds = 0;
  answer_lists lists;
};

reopened_index reopen(const bench& b, const index_settings& settings) {
  const numbers told = in_child([&] {
    open_log(b);
    const double begin = seconds_now();
    host_index index(settings);
    index.ask(b.data.queries, 1);
    const double first = seconds_now() - begin;
    return packed({first}, index.ask(b.data.queries, b.data.queries.rows));
  });
  return {told[0], unpacked(told, 1)};
}

std::size_t differing_lists(const bench& b, const answer_lists& one, const answer_lists& other) {
  std::size_t count = 0;
  for (std::size_t query = 0; query < b.data.queries.rows; ++query)
    count += one.same_row(other, query, b.whole.k) ? 0 : 1;
  return count;
}

void print_pages(const char* when, const std::string& directory) {
  const file_pages pages = look_at_pages(directory);
  fmt::print("  {:<28} {:.0f} MB on disk, {:.0f} MB of them in the page cache\n", when,
             static_cast<double>(pages.allocated_bytes) / megabyte,
             static_cast<double>(pages.resident_bytes) / megabyte);
}

void print_reopened(const bench& b, const char* pages, const reopened_index& reopened,
                    const built_index& before) {
  fmt::print(
      "  {:<28} {:.1f} ms, {:.2f} % of the build; recall@{} {:.4f}, lists that differ: {} of {}\n",
      fmt::format("first answer, {} pages", pages), reopened.first_answer_seconds * 1e3,
      100 * reopened.first_answer_seconds / before.build_seconds, b.whole.k,
      recall(b, reopened.lists.ids), differing_lists(b, reopened.lists, before.lists),
      b.data.queries.rows);
}

built_index measure_reopening(const bench& b) {
  fs::remove_all(b.whole.base);
  const built_index before = build(b, b.whole, 0, b.data.base.rows);
  fmt::print("reopening in another process\n");
  fmt::print("  {:<28} {:.2f} s, {} threads; recall@{} {:.4f}\n", "build", before.build_seconds,
             b.whole.threads, b.whole.k, recall(b, before.lists.ids));
  fmt::print("  {:<28} {:.2f} s\n", "close", before.close_seconds);
  print_pages("files", files_of(b.whole));
  print_reopened(b, "warm", reopen(b, b.whole), before);
  drop_pages(files_of(b.whole));
  print_pages("pages dropped (fadvise)", files_of(b.whole));
  print_reopened(b, "cold", reopen(b, b.whole), before);
  return before;
}

void measure_halves(const bench& b, const built_index& at_once) {
  index_settings settings = b.whole;
  settings.base += "-halves";
  fs::remove_all(settings.base);
  const std::size_t middle = b.data.base.rows / 2;
  build(b, settings, 0, middle);
  const built_index both = build(b, settings, middle, b.data.base.rows);
  const double together = recall(b, at_once.lists.ids);
  const double apart = recall(b, both.lists.ids);
  fmt::print("second half added after reopening\n");
  fmt::print("  {:<28} {:.4f}, built at once {:.4f}: {:+.2f} percentage points\n", "recall", apart,
             together, 100 * (apart - together));
  fs::remove_all(settings.base);
}

// Pairs (in memory, on disk), one a round.
void print_ratio(const bench& b, const char* clock, const numbers& pairs) {
  numbers memory, disk, ratios;
  for (std::size_t i = 0; i + 1 < pairs.size(); i += 2) {
    memory.push_back(pairs[i]);
    disk.push_back(pairs[i + 1]);
    ratios.push_back(pairs[i] / pairs[i + 1]);
  }
  const auto n = static_cast<double>(b.data.queries.rows);
  const auto [lowest, highest] = std::minmax_element(ratios.begin(), ratios.end());
  fmt::print("  {:<28} in memory {:.0f}, on disk {:.0f}; ratio {:.3f} ({:.3f} - {:.3f})\n", clock,
             n / median(memory), n / median(disk), median(ratios), *lowest, *highest);
}

void measure_speed(const bench& b) {
  fmt::print("queries a second, warm pages, medians of {} interleaved rounds\n", b.chosen.rounds);
  const numbers told = in_child([&] {
    open_log(b);
    index_settings in_memory = b.whole;
    in_memory.base.clear();
    host_index memory(in_memory);
    memory.add(b.data.base, 0, b.data.base.rows);
    host_index disk(b.whole);
    std::vector<std::uint32_t> ids;
    numbers gone_by, processor;
    for (int round = -1; round < b.chosen.rounds; ++round)
      for (host_index* const index : {&memory, &disk}) {
        const taken time = index->ask_in_bulk(b.data.queries, &ids);
        if (round < 0) continue;  // warms up
        gone_by.push_back(time.seconds);
        processor.push_back(time.processor_seconds);
      }
    gone_by.insert(gone_by.end(), processor.begin(), processor.end());
    return gone_by;
  });
  const auto middle = told.begin() + static_cast<std::ptrdiff_t>(told.size() / 2);
  print_ratio(b, "by time gone by", numbers(told.begin(), middle));
  print_ratio(b, "by processor time", numbers(middle, told.end()));
}

bool refuse_locking(platform::fault_point point) {
  return point == platform::fault_point::lock;
}

// One setting of the cache, asked several times from cold: passes over all queries after another opening.
struct cache_case {
  std::string title;
  unsigned long long bytes = 0;
  bool may_lock = true;
  numbers first, second, processor;  // seconds, one a round
  bool same_answers = true;
};

std::vector<cache_case> cache_cases(const options& chosen) {
  std::vector<cache_case> all(1);
  all[0].title = "none";
  for (const unsigned long long bytes : chosen.caches)
    for (const bool may_lock : {true, false}) {
      cache_case made;
      made.title = (bytes < 100 ? fmt::format("{} %", bytes)
                                : fmt::format("{:.0f} MB", static_cast<double>(bytes) / megabyte)) +
                   (may_lock ? ", pages locked" : ", copies");
      made.bytes = bytes;
      made.may_lock = may_lock;
      all.push_back(made);
    }
  return all;
}

void ask_cold(const bench& b, cache_case* wanted, std::vector<std::uint32_t>* answers) {
  index_settings settings = b.whole;
  settings.disk_cache = wanted->bytes;
  drop_pages(files_of(settings));
  const numbers told = in_child([&] {
    open_log(b);
    if (!wanted->may_lock) platform::current_fault_hook.store(refuse_locking);
    host_index index(settings);
    std::vector<std::uint32_t> ids;
    const taken first = index.ask_in_bulk(b.data.queries, &ids);
    const taken second = index.ask_in_bulk(b.data.queries, &ids);
    numbers all{first.seconds, second.seconds, second.processor_seconds};
    all.insert(all.end(), ids.begin(), ids.end());
    return all;
  });
  wanted->first.push_back(told[0]);
  wanted->second.push_back(told[1]);
  wanted->processor.push_back(told[2]);
  const std::vector<std::uint32_t> ids(told.begin() + 3, told.end());
  if (answers->empty()) *answers = ids;
  wanted->same_answers = wanted->same_answers && ids == *answers;
}

void measure_cache(const bench& b) {
  fmt::print(
      "queries a second with the disk cache: pages dropped (fadvise), opened, all asked twice; "
      "medians of {} "
      "interleaved rounds\n",
      b.chosen.cold_rounds);
  fmt::print("  {:<28} {:>12} {:>12} {:>24}   {}\n", "cache", "first pass", "second pass",
             "second, processor time", "answers");
  std::vector<cache_case> cases = cache_cases(b.chosen);
  std::vector<std::uint32_t> answers;
  for (int round = 0; round < b.chosen.cold_rounds; ++round)
    for (cache_case& each : cases) ask_cold(b, &each, &answers);
  const auto n = static_cast<double>(b.data.queries.rows);
  for (const cache_case& each : cases)
    fmt::print("  {:<28} {:>12.0f} {:>12.0f} {:>24.0f}   {}\n", each.title, n / median(each.first),
               n / median(each.second), n / median(each.processor),
               each.same_answers ? "equal" : "DIFFERENT");
}

void print_heading(const bench& b) {
  fmt::print("data       {}, {} x {}, {} queries\n", b.data.recipe, b.data.base.rows,
             b.data.base.dimension, b.data.queries.rows);
  fmt::print("machine    {}, {} processors, kernels {}\n", detect_cpu_features().brand,
             std::thread::hardware_concurrency(), chosen_kernels());
  fmt::print(
      "index      constellation {}, radius {}, 1 pattern probe; searches keep {} of which {} are "
      "asked for, 1 thread, result cache off\n",
      b.whole.links, b.whole.construction_effort, b.whole.effort, b.whole.k);
}

void run(const options& chosen) {
  bench b{chosen, {}, {}, chosen.index};
  distance_init();
  b.data = compare::load_fashion(chosen.fashion_directory, chosen.n_points, chosen.n_queries);
  b.truth = compare::find_truth(b.data, chosen.index.k, "");
  b.whole.dimension = b.data.base.dimension;
  b.whole.base = (fs::absolute(chosen.directory) / "korvex-on-disk-bench").string();
  print_heading(b);
  const auto wanted = [&](const char* part) {
    return std::find(chosen.parts.begin(), chosen.parts.end(), part) != chosen.parts.end();
  };
  // The other parts ask the index that this one leaves behind.
  const built_index at_once = measure_reopening(b);
  if (wanted("halves")) measure_halves(b, at_once);
  if (wanted("speed")) measure_speed(b);
  if (wanted("cache")) measure_cache(b);
  fs::remove_all(b.whole.base);
}

void add_options(CLI::App& app, options& o) {
  app.add_option("--directory", o.directory, "where the index is made, on the disk to measure")
      ->capture_default_str();
  app.add_option("--fashion-directory", o.fashion_directory, "where the pictures are")
      ->capture_default_str();
  app.add_option("--parts", o.parts, "reopen, halves, speed, cache; the first always runs")
      ->delimiter(',')
      ->capture_default_str();
  app.add_option("--points", o.n_points, "pictures at most");
  app.add_option("--queries", o.n_queries, "queries at most")->capture_default_str();
  app.add_option("--rounds", o.rounds, "timed rounds of the comparison with memory")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_option("--cold-rounds", o.cold_rounds, "rounds of the disk cache")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_option("--caches", o.caches,
                 "sizes of the disk cache in bytes, below 100 per cent of the memory")
      ->delimiter(',')
      ->capture_default_str();
  app.add_option("--threads", o.index.threads, "indexing threads")->capture_default_str();
  app.add_option("--effort", o.index.effort, "candidates a search keeps")->capture_default_str();
  app.add_option("--links", o.index.links, "constellation size")->capture_default_str();
  app.add_option("--construction-effort", o.index.construction_effort, "candidates while linking")
      ->capture_default_str();
  app.add_option("--log", o.log, "file for the log");
}

}  // namespace

}  // namespace korvex::on_disk

int main(int argc, char** argv) {
  CLI::App app("korvex_on_disk: what an index on disk costs, and what its cache is worth");
  korvex::on_disk::options options;
  korvex::on_disk::add_options(app, options);
  CLI11_PARSE(app, argc, argv);
  try {
    korvex::on_disk::run(options);
    return 0;
  } catch (const std::exception& error) {
    fmt::print(stderr, "korvex_on_disk: {}\n", error.what());
    return 1;
  }
}
