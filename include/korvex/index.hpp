#ifndef KORVEX_INDEX_HPP
#define KORVEX_INDEX_HPP

#include "korvex/core.hpp"
#include "korvex/opening.hpp"
#include "korvex/pending.hpp"

// Korvex for C++20: nearest neighbours of vectors, in memory or on disk. docs/guide.md leads from
// the first lines to a tuned index.
//
//   korvex::index index({.dimension = 128});
//   index.add(vector);
//   for (auto [id, distance] : index.search(query, 10)) ...
//
// Header-only over korvex/engine.h: link the shared library korvex.
namespace korvex {

// An index. Answers hold no vector that is deleted or hidden, no vector twice, and nothing of
// another query or another index.
// Threads    every operation but move, close and the destructor may run on any thread beside every
//            other; docs/guide.md tells what sees what
// Ownership  move-only; its end closes the index, once its pending searches are gone. Files stay
// Errors     throws korvex::error only, and std::bad_alloc; an operation that throws has changed
//            nothing unless it says otherwise
class index {
 public:
  // Opens the index of the options, or creates it.
  // Errors   invalid_argument; not_found, exists (open_mode); mismatch, when what is there was made
  //          with another dimension or metric, or without labels; unavailable; no_room
  explicit index(const index_options& options) : core_(detail::open(options)) {}
  index(index&&) noexcept = default;
  index& operator=(index&&) noexcept = default;

  // As the end of the object; everything after it throws `closed`.
  void close() { core_.reset(); }
  bool is_open() const { return core_ != nullptr; }

  std::uint32_t dimension() const { return use().dimension(); }
  korvex::metric metric() const { return use().distance(); }
  bool has_labels() const { return use().labels(); }
  // Vectors that searches can return.
  std::size_t size() const { return use().counts().live; }
  // Ids that were handed out: the next one is this number.
  std::size_t added() const { return use().counts().added; }

  // --- Vectors ---

  // Adds a copy of the vector (under cosine its unit copy) and returns its id. Linking goes on
  // behind; a search that starts later waits for it and finds the vector.
  // Errors   dimension_mismatch, not_finite, labels_off (a label without labels), no_room
  id_type add(std::span<const float> vector, std::optional<std::uint64_t> label = std::nullopt) {
    detail::core& core = use();
    core.check_one(vector, "the vector");
    if (label) require_labels();
    std::vector<float> room;
    std::lock_guard lock(core.adding());
    return add_row(core.within_range(vector, &room).data(), label.value_or(0));
  }

  // Adds a block [n x dimension], row after row; ids follow one another. No labels, or one for each
  // row. All rows are checked before the first is added.
  // Errors   as add; invalid_argument when the labels are not as many as the rows; no_room may come
  //          after some rows were added: the message says how many
  id_range add_block(std::span<const float> vectors, std::span<const std::uint64_t> labels = {}) {
    detail::core& core = use();
    const std::size_t n = core.check_rows(vectors, "the vectors");
    if (!labels.empty()) require_labels();
    if (!labels.empty() && labels.size() != n)
      throw error(errc::invalid_argument, detail::text(labels.size()) + " labels were given for " +
                                              detail::text(n) + " vectors");
    std::vector<float> room;
    const std::span<const float> rows = core.within_range(vectors, &room);
    std::lock_guard lock(core.adding());
    id_range ids{core.counts().added, 0};
    for (; ids.count < n; ++ids.count) {
      const id_type id = add_row(rows.data() + std::size_t{ids.count} * core.dimension(),
                                 labels.empty() ? 0 : labels[ids.count], ids.count);
      if (ids.count == 0) ids.first = id;
    }
    return ids;
  }

  // Hides a vector from all searches that start later, or brings it back. Its id, vector and label
  // stay. Doing it twice does no harm.
  // Errors   no_such_id
  void remove(id_type id) { mark(id, 0); }
  void restore(id_type id) { mark(id, 1); }
  // All of them, or none when an id does not exist.
  void remove(std::span<const id_type> ids) {
    for (const id_type id : ids) require_id(id);
    for (const id_type id : ids) mark(id, 0);
  }
  // Whether searches can return the id.
  bool contains(id_type id) const {
    constexpr int deleted_or_duplicate = 2 | 4;
    hnsw_s* const record = use().record();
    return id < use().counts().added &&
           korvex_is_flag_set_internal(record, id + 1, deleted_or_duplicate) == 0;
  }

  // The label of a vector; 0 unless one was given.
  // Errors   labels_off, no_such_id
  std::uint64_t label(id_type id) const {
    require_labels();
    require_id(id);
    return korvex_get_label(use().record(), id);
  }
  void set_label(id_type id, std::uint64_t label) {
    require_labels();
    require_id(id);
    korvex_change_label(use().record(), id, label);
  }

  // A copy of what is stored, also of a removed vector; under cosine the unit copy.
  // Errors   no_such_id
  std::vector<float> vector_at(id_type id) const {
    require_id(id);
    std::vector<float> vector(use().dimension());
    korvex_get_vector(use().record(), id, vector.data());
    return vector;
  }

  // --- Searching ---

  // The k nearest vectors of a query, on the calling thread.
  // Threads  any number at once; sees everything that was added, removed or labelled before the
  //          call
  // Errors   dimension_mismatch, not_finite, invalid_argument (k outside 1 to 16,777,216, options),
  //          no_room; what the filter throws
  hits search(std::span<const float> query, std::size_t k,
              const search_options& options = {}) const {
    use().check_one(query, "the query");
    return detail::hits_of(use().search(query, k, options));
  }
  // Of a block of queries [n x dimension], one after another on the calling thread.
  results search_block(std::span<const float> queries, std::size_t k,
                       const search_options& options = {}) const {
    return use().search(queries, k, options);
  }
  // Starts a search on the index's search threads (with a filter or allowed ids: on a thread of its
  // own) and returns. Waits while very many are queued.
  pending search_async(std::span<const float> query, std::size_t k,
                       const search_options& options = {}) const {
    use().check_one(query, "the query");
    detail::core::check_search(k, options);
    if (options.deadline.count() != 0)
      throw error(errc::invalid_argument,
                  "search_async takes no deadline; pending::wait_for was expected");
    if (options.filter || options.allowed || options.allowed_bits)
      return pending(std::make_unique<detail::filtered_search>(core_, query, k, options));
    return pending(std::make_unique<detail::session_search>(core_, query, k, options.radius));
  }

  // --- The whole ---

  // Waits until everything added before the call is linked; searches that start then wait for
  // nothing. `told` hears about it some ten times a second and at the end; false from it ends the
  // wait. Returns whether all is linked.
  bool wait_ready(const std::function<bool(const progress&)>& told = {}) const {
    constexpr std::uint64_t step_ms = 100;
    const detail::core& core = use();
    for (;;) {
      const bool linked = korvex_wait_linked(core.record(), step_ms) == 1;
      const korvex_counts_s counts = core.counts();
      const bool go_on = !told || told({counts.linked, counts.added});
      if (linked || !go_on) return linked;
    }
  }

  // Puts an index on disk on its device. Without it the system does so in its own time; after a
  // crash of the process alone nothing is lost.
  // Errors   unavailable
  void flush() {
    if (korvex_sync_to_disk(use().record(), 0) != 0)
      throw error(errc::unavailable, "the index could not be written to its device");
  }

  // Looks at every vector's flags: takes about a millisecond a million vectors.
  statistics stats() const {
    korvex_stats_s raw{};
    raw.size = sizeof raw;
    korvex_get_stats(use().record(), &raw);
    return {raw.dimension, raw.added,        use().counts().live, raw.deleted, raw.duplicates,
            raw.unlinked,  raw.memory_bytes, raw.disk_bytes,      raw.kernels};
  }

  // What `vectors` vectors will take in an index of these options, before it is built.
  static size_estimate estimate(const index_options& options, std::uint64_t vectors) {
    detail::check(options);
    korvex_description_s plan = detail::description_of(options);
    korvex_estimate_s sizes{};
    if (korvex_estimate(&plan, vectors, &sizes) != 0)
      throw error(errc::invalid_argument, "dimension is 0, at least 1 was expected");
    return {sizes.memory_bytes, sizes.disk_bytes};
  }

  // For the functions of korvex/engine.h; belongs to this object.
  hnsw_s* record() const { return use().record(); }

 private:
  detail::core& use() const {
    if (core_ != nullptr) return *core_;
    throw error(errc::closed, "this index is closed or was moved from; an open one was expected");
  }

  void require_labels() const {
    if (use().labels()) return;
    throw error(errc::labels_off, "this index keeps no labels; index_options::labels was expected");
  }

  void require_id(id_type id) const {
    const std::uint32_t added = use().counts().added;
    if (id < added) return;
    throw error(errc::no_such_id, "id " + detail::text(id) + " was given; " +
                                      (added == 0 ? std::string("the index is empty")
                                                  : "ids end at " + detail::text(added - 1)));
  }

  void mark(id_type id, int undelete) {
    require_id(id);
    korvex_delete(use().record(), id, undelete);
  }

  id_type add_row(const float* row, std::uint64_t label, std::uint32_t added_before = 0) {
    id_type id = 0;
    if (korvex_try_add(use().record(), row, label, &id) == 0) return id;
    throw error(errc::no_room, "memory or disk do not suffice for another vector; " +
                                   detail::text(added_before) + " of this call were added");
  }

  std::shared_ptr<detail::core> core_;
};

}  // namespace korvex

#endif  // KORVEX_INDEX_HPP
