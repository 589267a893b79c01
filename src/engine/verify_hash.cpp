#include <cmath>

#include "engine/store_layout.h"
#include "engine/verify_files.h"
#include "storage/vector_hash.h"

namespace korvex::verify {

namespace {

constexpr float ring_step = 0.1f;

// The vector hashes of an index: anchors, rings and the trees of star arrays, which share one
// store.
class hash_check {
 public:
  hash_check(const index_view& index, verify_statistics* statistics, findings* out)
      : index_(index),
        statistics_(*statistics),
        out_(*out),
        owned_(index.stars().size()),
        width_(star_width(index.probes())) {}

  void check_probe(const index_bytes& file, std::uint32_t probe,
                   std::vector<std::uint32_t>* stars) {
    probe_ = probe;
    stars_ = stars;
    const std::uint64_t anchor_bytes = std::uint64_t{4} * index_.record.dimension;
    const std::byte* const record = find_block(file, hash_block_id(probe), sizeof(vector_hash_s));
    const std::byte* const anchor = find_block(file, hash_block_id(probe) + 1, anchor_bytes);
    const std::byte* const rings =
        find_block(file, hash_block_id(probe) + 2, sizeof(vector_hash_link_s) * vector_hash_rings);
    if (record == nullptr || anchor == nullptr || rings == nullptr) {
      out_.warning("stars", "probe %u: a block of its vector hash is missing", probe);
      return;
    }
    const auto entry = read<vector_hash_s>(record).ep_id;
    check_anchor(entry, anchor);
    for (int ring = 0; ring < vector_hash_rings; ++ring)
      check_ring(ring, entry,
                 read<vector_hash_link_s>(rings + sizeof(vector_hash_link_s) *
                                                      static_cast<std::size_t>(ring)));
  }

 private:
  void check_anchor(std::uint32_t entry, const std::byte* anchor) {
    const std::uint32_t seed = index_.record.probes[probe_].seed;
    if (entry != seed)
      out_.warning("stars", "probe %u: its anchor is point %u, its seed %u", probe_, entry, seed);
    if (entry == 0) return;
    double square = 0;
    for (std::uint32_t i = 0; i < index_.record.dimension; ++i) {
      const auto component = static_cast<double>(read<float>(anchor + std::uint64_t{4} * i));
      square += component * component;
    }
    // Of unit length; zero for a vector that has no direction.
    if (!(std::fabs(square - 1) < 0.02 || square < 1e-6))
      out_.warning("stars", "probe %u: its anchor has the squared length %g", probe_, square);
  }

  void check_ring(int number, std::uint32_t entry, const vector_hash_link_s& ring) {
    if (ring.id != 0 && ring.id != entry)
      out_.warning("stars", "probe %u ring %d belongs to anchor %u, the probe's is %u", probe_,
                   number, ring.id, entry);
    const float radius = static_cast<float>(number) * ring_step;
    if (!(std::fabs(ring.radius - radius) < 1e-5f))
      out_.note("stars", "probe %u ring %d has radius %g, the next opening sets it to %g", probe_,
                number, static_cast<double>(ring.radius), static_cast<double>(radius));
    if (ring.lid == 0) return;
    if (ring.id == 0)
      out_.warning("stars", "probe %u ring %d has stars and no anchor", probe_, number);
    check_arrays(ring.lid, radius);
  }

  struct pending_array {
    std::uint32_t first;
    std::uint32_t above;  // the star that leads to it, 0 for a ring
    float radius;
    int depth;
  };

  void check_arrays(std::uint32_t first, float radius) {
    std::vector<pending_array> waiting = {{first, 0, radius, 0}};
    while (!waiting.empty()) {
      const pending_array next = waiting.back();
      waiting.pop_back();
      check_array(next, &waiting);
    }
  }

  void check_array(const pending_array& array, std::vector<pending_array>* waiting) {
    const std::uint32_t width = vector_hash_width_at(width_, array.radius);
    if (array.depth >= vector_hash_max_depth) {
      out_.error("stars", "probe %u: stars stand deeper than level %d", probe_,
                 vector_hash_max_depth);
      return;
    }
    const std::uint32_t stars = count_stars(array.first, width);
    if (!claim(array.first, vector_hash_room(stars, width))) return;
    ++statistics_.star_arrays;
    for (std::uint32_t slot = 0; slot < stars; ++slot) {
      const auto star = read<vector_hash_star_s>(index_.stars().record(array.first + slot));
      check_star(star, array);
      if (star.lid != 0)
        waiting->push_back({star.lid, star.id, array.radius * 0.5f, array.depth + 1});
    }
  }

  std::uint32_t count_stars(std::uint32_t first, std::uint32_t width) const {
    std::uint32_t count = 0;
    while (count < width && std::uint64_t{first} + count < index_.stars().size() &&
           read<vector_hash_star_s>(index_.stars().record(first + count)).id != 0)
      ++count;
    return count;
  }

  void check_star(const vector_hash_star_s& star, const pending_array& array) {
    ++statistics_.stars;
    if (star.id >= index_.size()) {
      out_.error("stars", "probe %u: a star is point %u, there are %u", probe_, star.id,
                 index_.size() - 1);
      return;
    }
    stars_->push_back(star.id);
    if (index_.record.norm_probing == 0 && index_.probe_of(star.id) != probe_)
      out_.warning("stars", "probe %u: star %u is of probe %u", probe_, star.id,
                   index_.probe_of(star.id));
    if (star.id <= array.above)
      out_.warning("stars", "probe %u: star %u stands under the newer star %u", probe_, star.id,
                   array.above);
  }

  // Every slot belongs to one array only: so arrays form no circle.
  bool claim(std::uint32_t first, std::uint32_t width) {
    const std::uint32_t in_block = index_.stars().records_per_block();
    if (std::uint64_t{first} + width > index_.stars().size() ||
        first % in_block + std::uint64_t{width} > in_block) {
      out_.error("stars", "probe %u: no star array of %u slots can begin at %u of %u", probe_,
                 width, first, index_.stars().size());
      return false;
    }
    for (std::uint32_t slot = first; slot < first + width; ++slot) {
      if (owned_[slot]) {
        out_.error("stars", "probe %u: the star array at %u shares slot %u with another", probe_,
                   first, slot);
        return false;
      }
      owned_[slot] = true;
    }
    return true;
  }

  const index_view& index_;
  verify_statistics& statistics_;
  findings& out_;
  std::vector<bool> owned_;  // slots of the store
  const std::uint32_t width_;
  std::uint32_t probe_ = 0;
  std::vector<std::uint32_t>* stars_ = nullptr;
};

}  // namespace

std::vector<std::vector<std::uint32_t>> check_hashes(const index_view& index,
                                                     const index_bytes& file,
                                                     verify_statistics* statistics, findings* out) {
  std::vector<std::vector<std::uint32_t>> stars(index.probes());
  hash_check hashes(index, statistics, out);
  for (std::uint32_t probe = 0; probe < index.probes(); ++probe)
    hashes.check_probe(file, probe, &stars[probe]);
  return stars;
}

}  // namespace korvex::verify
