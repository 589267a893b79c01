#include <algorithm>

#include "engine/points.h"
#include "engine/verify_files.h"

namespace korvex::verify {

namespace {

// Which points of one probe a search can come to.
class reach_check {
 public:
  explicit reach_check(const index_view& index) : index_(index), reached_(index.size()) {}

  void enter(std::uint32_t id) {
    // A star without neighbours hands over to the point that it was itself linked from.
    while (id != 0 && id < index_.size() && index_.slot(id, 0) == 0 && !index_.is_seed(id)) {
      const std::uint32_t entry = index_.slot(id, 1);
      if (entry >= id) return;
      id = entry;
    }
    meet(id);
    while (!waiting_.empty()) {
      const std::uint32_t next = waiting_.back();
      waiting_.pop_back();
      for (const std::uint32_t neighbour : index_.neighbours(next)) meet(neighbour);
    }
  }

  bool reached(std::uint32_t id) const { return reached_[id]; }

 private:
  void meet(std::uint32_t id) {
    if (id == 0 || id >= index_.size() || reached_[id]) return;
    reached_[id] = true;
    waiting_.push_back(id);
  }

  const index_view& index_;
  std::vector<bool> reached_;
  std::vector<std::uint32_t> waiting_;
};

// Probes [first, end) with one graph between them.
struct probe_group {
  std::uint32_t first, end;
  bool holds(const index_view& index, std::uint32_t id) const {
    return end - first == index.probes() || index.probe_of(id) == first;
  }
};

void check_group(const index_view& index, const probe_group& group,
                 const std::vector<std::vector<std::uint32_t>>& stars,
                 verify_statistics* statistics, findings* out) {
  reach_check reach(index);
  for (std::uint32_t probe = group.first; probe < group.end; ++probe) {
    reach.enter(index.record.probes[probe].seed);
    for (const std::uint32_t star : stars[probe]) reach.enter(star);
  }
  std::uint32_t points = 0;
  std::uint32_t lost = 0;
  std::uint32_t first_lost = 0;
  for (std::uint32_t id = 1; id < index.size(); ++id) {
    if ((index.flags_of(id) & flags_hidden) != 0 || !group.holds(index, id)) continue;
    ++points;
    // A point without neighbours is reported as unlinked.
    if (reach.reached(id) || index.slot(id, 0) == 0) continue;
    if (lost++ == 0) first_lost = id;
  }
  statistics->unreachable += lost;
  if (lost == 0) return;
  out->warning("reach", "probe %u: no link leads to %u of %u live points, point %u is the first",
               group.first, lost, points, first_lost);
}

}  // namespace

void check_reach(const index_view& index, const std::vector<std::vector<std::uint32_t>>& stars,
                 verify_statistics* statistics, findings* out) {
  if (index.record.norm_probing != 0) {
    check_group(index, {0, index.probes()}, stars, statistics, out);
    return;
  }
  for (std::uint32_t probe = 0; probe < index.probes(); ++probe)
    check_group(index, {probe, probe + 1}, stars, statistics, out);
}

}  // namespace korvex::verify
