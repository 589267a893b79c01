#ifndef KORVEX_OPENING_HPP
#define KORVEX_OPENING_HPP

#include <thread>

#include "korvex/core.hpp"

// How korvex/index.hpp opens an index; no part of the interface.
namespace korvex::detail {

inline void check(const index_options& options) {
  constexpr int most_threads = 1024;
  require_range("dimension", options.dimension, options.directory.empty() ? 1 : 0, 1 << 20);
  require_range("constellation", options.constellation, 2, 256);
  require_range("index_radius", options.index_radius, 1, 1 << 20);
  require_range("probes", options.probes, 1, 16);
  require_range("block_vectors", options.block_vectors, 1, std::int64_t{1} << 31);
  require_range("indexing_threads", options.indexing_threads, -1, most_threads);
  if (options.search_threads != -1)
    require_range("search_threads", options.search_threads, 1, most_threads);
  if (options.name.find_first_of("/\\") != std::string::npos)
    throw error(errc::invalid_argument,
                "name is \"" + options.name + "\", one without path separators was expected");
  if (options.directory.empty() && options.mode == open_mode::open_existing)
    throw error(errc::not_found, "an index in memory is always new; a directory was expected");
  if (options.duplicate_distance && !std::isfinite(*options.duplicate_distance))
    throw error(errc::invalid_argument, "duplicate_distance is " +
                                            std::to_string(*options.duplicate_distance) +
                                            ", a finite number was expected");
}

inline korvex_description_s description_of(const index_options& options) {
  korvex_description_s plan{};
  plan.size = sizeof plan;
  plan.dimension = options.dimension;
  plan.metric = engine_metric(options.metric.value_or(metric::l2_squared));
  plan.normalize = options.metric == metric::cosine ? 1 : 0;
  plan.labels = options.labels ? 1 : 0;
  plan.probes = static_cast<std::uint32_t>(options.probes);
  plan.constellation = static_cast<std::uint32_t>(options.constellation);
  plan.radius = static_cast<std::uint32_t>(options.index_radius);
  plan.on_disk = options.directory.empty() ? 0 : 1;
  return plan;
}

// As the engine takes it on every system: UTF-8.
inline std::string path_text(const index_options& options) {
  const std::u8string text = options.directory.u8string();
  return {text.begin(), text.end()};
}

inline std::string title(const index_options& options) {
  return "the index \"" + (options.name.empty() ? std::string("nimbra-korvex") : options.name) +
         "\" in " + path_text(options);
}

// What lies in the files, or nothing when the index is to be made.
inline std::optional<korvex_description_s> stored_index(const index_options& options) {
  if (options.directory.empty()) return std::nullopt;
  korvex_description_s stored{};
  stored.size = sizeof stored;
  const int found = korvex_inspect(0, path_text(options).c_str(), options.name.c_str(), &stored);
  if (found < 0)
    throw error(errc::unavailable, title(options) + " cannot be read; korvex verify tells more");
  if (found == 0 && options.mode == open_mode::create_new)
    throw error(errc::exists, title(options) + " is there already, a new one was expected");
  if (found == 1 && options.mode == open_mode::open_existing)
    throw error(errc::not_found, title(options) + " is not there, an existing one was expected");
  if (found == 0) return stored;
  if (options.dimension == 0)
    throw error(errc::invalid_argument, "dimension is 0; a new index expects 1 to 1048576");
  return std::nullopt;
}

inline void require_same(const index_options& options, const korvex_description_s& stored) {
  const std::optional<metric> made = metric_of(stored);
  if (options.dimension != 0 && options.dimension != stored.dimension)
    throw error(errc::mismatch, "dimension is " + text(options.dimension) + ", " + title(options) +
                                    " has " + text(stored.dimension));
  if (!made)
    throw error(errc::mismatch, title(options) +
                                    " was made through the raw contract, with unit copies and a "
                                    "metric that is no metric of this front");
  if (options.metric && *options.metric != *made)
    throw error(errc::mismatch, std::string("metric is ") + name_of(*options.metric) + ", " +
                                    title(options) + " has " + name_of(*made));
  if (options.labels && stored.labels == 0)
    throw error(errc::mismatch, "labels were asked for, " + title(options) + " was made without");
}

inline void set_new(hnsw_s* record, const index_options& options) {
  const korvex_description_s plan = description_of(options);
  korvex_set_distance_type(record, plan.metric);
  korvex_set_normalize(record, plan.normalize);
  korvex_enable_label(record, options.labels ? 1 : 0);
  korvex_set_partitions(record, options.probes);
  korvex_set_neighbors_count(record, options.constellation);
  korvex_set_radius(record, options.index_radius);
  korvex_set_alloc_units(record, options.block_vectors, 0);
  if (options.duplicate_distance) {
    const bool cosine = options.metric == metric::cosine;
    korvex_set_duplicate_threshold(
        record, 1, cosine ? 2 * *options.duplicate_distance : *options.duplicate_distance, 1);
  }
}

inline void set_running(hnsw_s* record, const index_options& options) {
  const unsigned processors = std::max(std::thread::hardware_concurrency(), 1u);
  const int searching =
      options.search_threads > 0 ? options.search_threads : static_cast<int>(processors);
  constexpr int queued_a_thread = 1024;
  korvex_set_search_threads(record, searching, queued_a_thread * searching);
  korvex_set_threads(record, options.indexing_threads >= 0
                                 ? options.indexing_threads
                                 : static_cast<int>(std::max(processors - 1, 4u)));
  korvex_validate_parameters(record, 1);
  korvex_enable_huges_pages(record, options.huge_pages ? 1 : 0);
  if (!options.directory.empty()) korvex_set_max_ram_usage(record, options.disk_cache_bytes);
  // Answers of other queries are no answers.
  korvex_set_result_cache(record, 0);
}

inline std::shared_ptr<core> open(const index_options& options) {
  check(options);
  quiet_unless_chosen();
  const std::optional<korvex_description_s> stored = stored_index(options);
  if (stored) require_same(options, *stored);
  const korvex_description_s made = stored ? *stored : description_of(options);
  const std::string directory = path_text(options);
  const auto close = [](hnsw_s* record) { korvex_free(record); };
  std::unique_ptr<hnsw_s, decltype(close)> unowned(
      korvex_init(made.dimension, 0, directory.c_str(), options.name.c_str()), close);
  if (unowned == nullptr)
    throw error(errc::unavailable,
                options.directory.empty()
                    ? std::string("an index in memory cannot be made here: memory is short, or "
                                  "there is a single processor")
                    : title(options) +
                          " cannot be opened: it is in use, or its folder cannot be "
                          "written; the log tells which");
  auto opened = std::make_shared<core>(unowned.get(), made, *metric_of(made));
  hnsw_s* const record = unowned.release();
  if (!stored) set_new(record, options);
  set_running(record, options);
  if (korvex_init_memory(record) != 0)
    throw error(errc::no_room, "memory or disk do not suffice to open the index; the log tells");
  return opened;
}

}  // namespace korvex::detail

#endif  // KORVEX_OPENING_HPP
