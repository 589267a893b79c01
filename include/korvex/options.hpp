#ifndef KORVEX_OPTIONS_HPP
#define KORVEX_OPTIONS_HPP

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "korvex/engine.h"

// What goes into an index and what comes out.
namespace korvex {

// Vectors are numbered in the order of their additions, from 0; a number is never used again.
using id_type = std::uint32_t;
inline constexpr id_type no_id = KORVEX_NO_ID;

// How far apart two vectors are. Nearest first means ascending, and descending for inner_product.
enum class metric {
  l2_squared,     // sum of squared differences; 0 to infinity
  l2,             // its square root
  inner_product,  // the dot product as it is: the largest is the nearest
  cosine,         // 1 - cosine of the angle; 0 to 2. Unit copies are stored
};

enum class open_mode {
  open_or_create,
  open_existing,  // not_found when there is none
  create_new,     // exists when there is one
};

// Fields marked "new index" come from the files when an index on disk is opened again.
struct index_options {
  // Components of a vector. 1 to 1,048,576. Required, but for an existing index on disk: 0 takes
  // what it has.
  std::uint32_t dimension = 0;
  // An index on disk was made with one metric, and refuses another (unset: what it has).
  std::optional<korvex::metric> metric = std::nullopt;  // unset and new: l2_squared
  // Where the files lie; empty (default): in memory. They go to a folder below it.
  std::filesystem::path directory = {};
  // Tells indexes of one directory apart. Default "nimbra-korvex"; no path separators.
  std::string name = {};
  open_mode mode = open_mode::open_or_create;

  // A 64-bit label for every vector. Default off; 8 bytes a vector. An index on disk that has none
  // refuses to be asked for them.
  bool labels = false;
  // New index. Neighbours that linking aims at; lists hold twice as many. Default 16, range 2 to
  // 256. More: higher recall, 8 bytes a vector each, slower linking.
  int constellation = 16;
  // New index. Candidates looked at for each vector while linking. Default 200, range 1 to
  // 1,048,576. More: higher recall later, linking slower in proportion.
  int index_radius = 200;
  // New index. Graphs that the vectors are spread over. Default 1, range 1 to 16. Each is walked by
  // every search; more spread the work of a session's query over threads.
  int probes = 1;
  // New index. Vectors that a storage block holds. Default 1,000,000, range 1 to 2^31. Memory is
  // taken as it is used; very small blocks cost time.
  std::uint32_t block_vectors = 1'000'000;
  // New index. A vector within this distance of one that is there already is hidden, so that
  // answers hold one of them. Default unset: all are kept.
  std::optional<float> duplicate_distance = std::nullopt;

  // Threads that link what was added. Default -1: processors - 1, at least 4. 0: linking happens
  // inside add. Range up to 1,024.
  int indexing_threads = -1;
  // Threads that serve search_async. Default -1: one a processor. Range 1 to 1,024. search needs
  // none.
  int search_threads = -1;
  // On disk: bytes of vectors and links kept in memory, below 100 per cent of the free memory.
  // Default 0: what the system's own cache does.
  std::uint64_t disk_cache_bytes = 0;
  // Large pages where the system grants them. Default off; faster on indexes beyond some GB.
  bool huge_pages = false;
};

// Whether a vector may be an answer; label is 0 while labels are off. Runs on the searching thread
// (of a search_async on a thread of its own) and may throw: the search ends with what it threw.
using filter = std::function<bool(id_type id, std::uint64_t label)>;

struct search_options {
  // Candidates looked at, at least; k and a neighbour list are the lower limits. Default 200, range
  // 0 to 16,777,216. More: higher recall, slower in proportion.
  int radius = 200;
  // Keeps the vectors for which it returns true. Default empty: all.
  korvex::filter filter = {};
  // Only these ids, in any order. Default unset: all. The span must live as long as the call
  // (search_async copies it). Combined with the others: all must allow an id.
  std::optional<std::span<const id_type>> allowed = std::nullopt;
  // Only ids whose bit (id % 64 of word id / 64) is set; ids beyond the span are not. Default
  // unset: all.
  std::optional<std::span<const std::uint64_t>> allowed_bits = std::nullopt;
  // For the whole call. Default 0: none. Answers that it cuts off say so. search_async takes none.
  std::chrono::milliseconds deadline{0};
};

struct hit {
  id_type id;
  float distance;  // in the metric's own scale
  friend bool operator==(const hit&, const hit&) = default;
};

// The answer of one query, nearest first. It is shorter than k only when no more vectors are
// allowed, or not complete.
struct hits : std::vector<hit> {
  using std::vector<hit>::vector;
  bool complete = true;  // false: cut off by the deadline
};

// The answers of a block of queries.
struct results {
  std::size_t k = 0;
  // [queries x k], nearest first; a row ends in (no_id, NaN) behind its count.
  std::vector<id_type> ids = {};
  std::vector<float> distances = {};
  std::vector<std::uint32_t> counts = {};  // hits of each row
  std::size_t answered = 0;                // rows before the deadline; all of them without one

  std::size_t size() const { return counts.size(); }
  // The hits of one query.
  std::span<const id_type> ids_of(std::size_t row) const {
    return std::span(ids).subspan(row * k, counts.at(row));
  }
  std::span<const float> distances_of(std::size_t row) const {
    return std::span(distances).subspan(row * k, counts.at(row));
  }
};

// Ids of a block: first, first + 1, ...
struct id_range {
  id_type first = 0;
  std::uint32_t count = 0;
};

struct progress {
  std::uint32_t linked;
  std::uint32_t added;
};

struct statistics {
  std::uint32_t dimension = 0;
  std::uint32_t added = 0;       // ids that additions returned
  std::uint32_t live = 0;        // of them, what searches can return
  std::uint32_t deleted = 0;     // removed, and not restored
  std::uint32_t duplicates = 0;  // hidden because they repeat another
  std::uint32_t unlinked = 0;    // not yet reachable by a walk
  std::uint64_t memory_bytes = 0;
  std::uint64_t disk_bytes = 0;  // 0 in memory
  std::string kernels = {};      // the distance kernels in use
};

struct size_estimate {
  std::uint64_t memory_bytes;  // on disk: with every file cached
  std::uint64_t disk_bytes;    // 0 in memory
};

}  // namespace korvex

#endif  // KORVEX_OPTIONS_HPP
