#include <algorithm>
#include <cmath>

#include "engine/points.h"
#include "engine/store_layout.h"
#include "engine/verify_files.h"

namespace korvex::verify {

namespace {

constexpr std::uint8_t known_flags = flag_data | flag_deleted | flag_duplicate | flag_link_lock;

// What the next opening mends after a close that was cut off, and nobody after an orderly one.
verify_severity if_unclean(const index_view& index) {
  return index.clean_close ? verify_severity::error : verify_severity::warning;
}

class counter_check {
 public:
  counter_check(const index_view& index, findings* out)
      : index_(index), record_(index.record), out_(*out), severity_(if_unclean(index)) {}

  void run() {
    if (!index_.clean_close)
      out_.note("counters",
                "the index was not closed with all its work done: the next opening "
                "looks for what is missing");
    check_lengths();
    check_order();
    for (std::uint32_t probe = 0; probe < index_.probes(); ++probe) check_seed(probe);
  }

 private:
  void check_lengths() {
    const std::uint32_t expected = record_.added + 1;
    for (std::uint8_t kind = 1; kind < star_store_kind; ++kind) {
      if (!has_store(record_, kind)) continue;
      check_gaps(kind);
      const std::uint32_t size = index_.stores[kind - 1].size();
      const bool spare =
          index_.clean_close && size == expected + 1 && index_.stores[vector_store].size() == size;
      if (size == expected || spare) continue;
      out_.add(size < expected ? severity_ : verify_severity::warning, "counters",
               "%u records of %s, expected %u", size, store_title(kind), expected);
    }
  }

  // Only the last block of these stores may have room left.
  void check_gaps(std::uint8_t kind) {
    const store_view& store = index_.stores[kind - 1];
    for (std::uint32_t block = 0; block + 1 < store.block_count(); ++block)
      if (store.used(block) != store.records_per_block())
        out_.warning("counters", "block %u of %s holds %u records, expected %u", block,
                     store_title(kind), store.used(block), store.records_per_block());
  }

  void check_order() {
    const bool done = record_.networked == record_.added && record_.taken == record_.added;
    const bool ordered = record_.networked <= record_.added && record_.taken <= record_.added;
    if ((index_.clean_close && !done) || !ordered)
      out_.add(severity_, "counters", "%u points added, %u taken, %u linked", record_.added,
               record_.taken, record_.networked);
    if (record_.duplicates > record_.added)
      out_.warning("counters", "%u duplicates of %u points", record_.duplicates, record_.added);
    if (record_.probes_made > index_.probes())
      out_.warning("counters", "%u probes in use of %u", record_.probes_made, index_.probes());
  }

  void check_seed(std::uint32_t probe) {
    const std::uint32_t seed = record_.probes[probe].seed;
    const bool needed = record_.norm_probing == 0 && probe < record_.added;
    if (seed == 0) {
      if (needed) out_.add(severity_, "seeds", "probe %u has points and no seed", probe);
      return;
    }
    if (seed >= index_.size())
      out_.add(severity_, "seeds", "probe %u begins at point %u, there are %u", probe, seed,
               std::max(index_.size(), 1u) - 1);
    else if (record_.norm_probing == 0 && index_.probe_of(seed) != probe)
      out_.add(severity_, "seeds", "probe %u begins at point %u of probe %u", probe, seed,
               index_.probe_of(seed));
    else if (seed > record_.max_seed)
      out_.add(severity_, "seeds", "point %u is a seed, the last one should be %u", seed,
               record_.max_seed);
  }

  const index_view& index_;
  const hnsw_s& record_;
  findings& out_;
  const verify_severity severity_;
};

class point_check {
 public:
  point_check(const index_view& index, verify_statistics* statistics, findings* out)
      : index_(index), statistics_(*statistics), out_(*out), severity_(if_unclean(index)) {}

  void count(std::uint32_t id) {
    const std::uint8_t flags = index_.flags_of(id);
    if ((flags & flag_deleted) != 0) ++statistics_.deleted;
    if ((flags & flag_duplicate) != 0) ++statistics_.duplicates;
    const bool live = (flags & flags_hidden) == 0;
    if (live) ++statistics_.live;
    if (live && index_.slot(id, 0) == 0 && !index_.is_seed(id)) ++statistics_.unlinked;
  }

  void check(std::uint32_t id) {
    const std::uint8_t flags = index_.flags_of(id);
    if ((flags & ~known_flags) != 0) out_.error("flags", "point %u has flags 0x%02x", id, flags);
    if ((flags & flag_link_lock) != 0)
      out_.add(severity_, "flags", "point %u is locked for linking", id);
    check_list(id);
    const bool live = (flags & flags_hidden) == 0;
    if (live) check_vector(id);
    if (live && index_.slot(id, 0) == 0 && !index_.is_seed(id)) report_unlinked(id);
  }

 private:
  void check_list(std::uint32_t id) {
    const auto worst = read<float>(index_.graph().record(id));
    if (!std::isfinite(worst)) out_.warning("graph", "point %u: its worst key is not finite", id);
    std::vector<std::uint32_t> list = index_.neighbours(id);
    const auto count = static_cast<std::uint32_t>(list.size());
    statistics_.links += count;
    statistics_.most_links = std::max(statistics_.most_links, count);
    for (const std::uint32_t neighbour : list) check_neighbour(id, neighbour);
    std::sort(list.begin(), list.end());
    const auto twice = std::adjacent_find(list.begin(), list.end());
    if (twice != list.end())
      out_.warning("graph", "point %u has neighbour %u more than once", id, *twice);
  }

  void check_neighbour(std::uint32_t id, std::uint32_t neighbour) {
    if (neighbour == id)
      out_.error("graph", "point %u is its own neighbour", id);
    else if (neighbour >= index_.size())
      out_.error("graph", "point %u has neighbour %u, there are %u", id, neighbour,
                 index_.size() - 1);
    else if (index_.record.norm_probing == 0 && index_.probe_of(neighbour) != index_.probe_of(id))
      out_.warning("graph", "point %u of probe %u has neighbour %u of probe %u", id,
                   index_.probe_of(id), neighbour, index_.probe_of(neighbour));
  }

  // The stored magnitude serves as a check sum of the vector.
  void check_vector(std::uint32_t id) {
    constexpr double tolerance = 0.01;  // kernels round in their own ways
    const std::byte* const vector = index_.vectors().record(id);
    double square = 0;
    for (std::uint32_t i = 0; i < index_.record.dimension; ++i) {
      const auto component = static_cast<double>(read<float>(vector + std::uint64_t{4} * i));
      square += component * component;
    }
    if (!std::isfinite(square)) {
      if (index_.record.validate_parameters != 0)
        out_.error("vectors", "point %u has components that are not finite", id);
      return;
    }
    // Beyond these a float cannot hold the square.
    if (square < 1e-30 || square > 1e37) return;
    const double length = std::sqrt(square);
    const auto stored = static_cast<double>(read<float>(index_.magnitudes().record(id)));
    if (!(std::fabs(stored - length) <= tolerance * length))
      out_.error("vectors", "point %u has length %g, its magnitude says %g", id, length, stored);
  }

  void report_unlinked(std::uint32_t id) {
    const std::uint32_t entry = index_.slot(id, 1);
    if (index_.clean_close)
      out_.warning("links", "point %u is live and linked to nothing", id);
    else if (entry >= id)
      out_.warning("links", "point %u is not linked, and waits for point %u", id, entry);
    else
      out_.warning("links", "point %u is not linked yet", id);
  }

  const index_view& index_;
  verify_statistics& statistics_;
  findings& out_;
  const verify_severity severity_;
};

}  // namespace

void check_counters(const index_view& index, findings* out) {
  counter_check(index, out).run();
}

void check_points(const index_view& index, bool summary, verify_statistics* statistics,
                  findings* out) {
  point_check points(index, statistics, out);
  statistics->points = index.size() == 0 ? 0 : index.size() - 1;
  for (std::uint32_t id = 1; id < index.size(); ++id) {
    points.count(id);
    if (!summary) points.check(id);
  }
}

}  // namespace korvex::verify
