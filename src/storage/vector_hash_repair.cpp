#include "storage/vector_hash_repair.h"

#include <algorithm>
#include <atomic>
#include <cfloat>

#include "storage/vector_store.h"

namespace korvex {

namespace {

class hash_mender {
 public:
  hash_mender(vector_hash_s* vh, std::vector<bool>* claimed,
              const std::function<bool(std::uint32_t)>& usable)
      : vh_(*vh), claimed_(*claimed), usable_(usable) {}

  std::uint32_t run() {
    vh_.arrays = vh_.stars = 0;
    for (int i = 0; i < vector_hash_rings; ++i) {
      vector_hash_link_s& ring = vh_.rings[i];
      if (ring.id != 0 || ring.lid != 0) ring.id = vh_.ep_id;
      mend_below(&ring.lid, ring.radius);
      while (!waiting_.empty()) {
        const pending_array next = waiting_.back();
        waiting_.pop_back();
        mend_array(next);
      }
    }
    return removed_;
  }

 private:
  struct pending_array {
    vector_hash_star_s* slots;
    std::uint32_t stars;
    std::uint32_t above;  // the star that leads to it, 0 for a ring
    float radius;
    int depth;
  };

  // Takes the array that hangs on a ring or star up, or off.
  void mend_below(std::uint32_t* lid, float radius, std::uint32_t above = 0, int depth = 0) {
    if (*lid == 0) return;
    const std::uint32_t width = vector_hash_width_at(vh_.width_narrow, radius);
    const std::uint32_t stars = count_stars(*lid, width);
    if (depth >= vector_hash_max_depth || !claim(*lid, vector_hash_room(stars, width))) {
      *lid = 0;
      ++removed_;
      return;
    }
    ++vh_.arrays;
    waiting_.push_back(
        {static_cast<vector_hash_star_s*>(vh_.pool->get(*lid)), stars, above, radius, depth});
  }

  std::uint32_t count_stars(std::uint32_t first, std::uint32_t width) const {
    std::uint32_t count = 0;
    while (count < width && std::uint64_t{first} + count < claimed_.size() &&
           static_cast<const vector_hash_star_s*>(vh_.pool->get(first + count))->id != 0)
      ++count;
    return count;
  }

  bool claim(std::uint32_t first, std::uint32_t room) {
    const std::uint64_t in_block = vh_.pool->records_per_block();
    if (std::uint64_t{first} + room > claimed_.size() || first % in_block + room > in_block)
      return false;
    const auto begin = claimed_.begin() + first;
    if (std::find(begin, begin + room, true) != begin + room) return false;
    std::fill_n(begin, room, true);
    return true;
  }

  void mend_array(const pending_array& array) {
    std::uint32_t kept = 0;
    for (std::uint32_t slot = 0; slot < array.stars; ++slot) {
      vector_hash_star_s star = array.slots[slot];
      if (star.id <= array.above || !usable_(star.id)) {
        ++removed_;
        continue;
      }
      mend_below(&star.lid, array.radius * 0.5f, star.id, array.depth + 1);
      array.slots[kept++] = star;
      ++vh_.stars;
    }
    // An array that lost nothing has its end mark, or is full.
    if (kept < array.stars) array.slots[kept] = {0, 0};
  }

  vector_hash_s& vh_;
  std::vector<bool>& claimed_;
  const std::function<bool(std::uint32_t)>& usable_;
  std::vector<pending_array> waiting_;
  std::uint32_t removed_ = 0;
};

}  // namespace

std::uint32_t vector_hash_mend(vector_hash_s* vh, std::vector<bool>* claimed,
                               const std::function<bool(std::uint32_t id)>& usable) {
  return hash_mender(vh, claimed, usable).run();
}

void vector_hash_begin_anew(vector_hash_s* vh, const float* anchor) {
  std::atomic_ref(vh->ep_id).store(0, std::memory_order_release);
  vh->arrays = vh->stars = 0;
  for (int i = 0; i < vector_hash_rings; ++i)
    vh->rings[i] = {0, 0, vh->rings[i].radius, 0, FLT_MIN, FLT_MAX};
  if (anchor != nullptr) std::copy_n(anchor, vh->anchor_len, vh->anchor);
}

void vector_hash_finish(vector_hash_s* vh, std::uint32_t id) {
  for (int i = 0; i < vector_hash_rings; ++i)
    if (vh->rings[i].count != 0) vh->rings[i].id = id;
  std::atomic_ref(vh->ep_id).store(id, std::memory_order_release);
}

}  // namespace korvex
