#include <algorithm>
#include <cstring>

#include "storage/vector_store_internal.h"

// Runs of free records. A run is described in the first 16 bytes of some free record: its own first
// one, or, for what was left when a run was split, a record taken for that. The list links those
// describing records; it lives in this process only.
namespace korvex::store {
namespace {

constexpr std::uint32_t run_marker = 42441;
constexpr std::uint32_t compact_after_frees = 256;
constexpr std::uint32_t compact_from_runs = 512;

// Records may be of any size, so that they need not be aligned for the run's words.
vector_free_run_s read_run(const vector_manager_s& m, std::uint32_t id) {
  vector_free_run_s run;
  std::memcpy(&run, vector_get(&m, id), sizeof run);
  return run;
}

void write_run(const vector_manager_s& m, std::uint32_t id, const vector_free_run_s& run) {
  std::memcpy(vector_get(&m, id), &run, sizeof run);
}

// Whether a run may be handed out: inside one block, below the ids never handed out. A record that
// was freed twice, or written after its release, describes anything.
bool is_sound(const vector_manager_s& m, const vector_free_run_s& run, std::uint32_t next_id) {
  return run.first < next_id && run.length != 0 && run.length <= next_id - run.first &&
         run.length <= m.records_per_block - (run.first & m.id_mask);
}

void push_run(vector_manager_s& m, std::uint32_t first, std::uint32_t length) {
  write_run(m, first, {first, run_marker, length, m.free_head});
  m.free_head = first;
  m.free_runs += 1;
  m.free_records += length;
}

// The rest of a split run goes back under a record of its own, which always comes from the unused
// ones: from the list it might split another run in turn. Without such a record the rest is lost.
void keep_remainder(vector_manager_s& m, std::uint32_t first, std::uint32_t length) {
  unsigned holder = vector_no_id;
  if (add_fresh(m, &holder, 1) == nullptr) return;
  const std::uint32_t marker = read_run(m, holder).marker;
  write_run(m, holder, {first, marker, length, m.free_head});
  m.free_head = holder;
  m.free_runs += 1;
  m.free_records += length;
}

// Blocks do not touch in memory: a run never crosses from one to the next.
bool joins(const vector_manager_s& m, const vector_free_run_s& run, const vector_free_run_s& next) {
  const std::uint64_t end = std::uint64_t{run.first} + run.length;
  return end == next.first && (end & m.id_mask) != 0;
}

// Joins neighbours among the first runs of the list. A run takes in one successor at most, so that
// three adjacent runs become two. Runs that the work area does not hold stay as they are.
void compact(vector_manager_s& m) {
  const std::uint32_t next_id = m.next_id.load(std::memory_order_relaxed);
  std::uint32_t seen = 0, n = 0;
  std::uint32_t id = m.free_head;
  while (seen < vector_manager_s::scratch_runs && seen < m.free_runs && id < next_id) {
    const vector_free_run_s run = read_run(m, id);
    seen += 1;
    id = run.next;
    if (!is_sound(m, run, next_id)) continue;
    m.free_records -= run.length;
    m.scratch[n++] = run;
  }
  m.free_runs -= seen;
  m.free_head = id;
  std::sort(m.scratch, m.scratch + n,
            [](const auto& a, const auto& b) { return a.first < b.first; });
  for (std::uint32_t i = 0; i < n; ++i) {
    vector_free_run_s run = m.scratch[i];
    if (i + 1 < n && joins(m, run, m.scratch[i + 1])) run.length += m.scratch[++i].length;
    push_run(m, run.first, run.length);
  }
  m.frees_since_compaction = 0;
}

}  // namespace

std::uint32_t take_free_records(vector_manager_s& m, std::uint32_t count) {
  const std::uint32_t next_id = m.next_id.load(std::memory_order_relaxed);
  std::uint32_t best = vector_no_id, before_best = vector_no_id;
  vector_free_run_s best_run{};
  // Counted, and ended by any id that was never handed out: the links are as little to be trusted
  // as the runs.
  std::uint32_t id = m.free_head, before = vector_no_id;
  for (std::uint32_t i = 0; i < m.free_runs && id < next_id; ++i) {
    const vector_free_run_s run = read_run(m, id);
    if (is_sound(m, run, next_id) && run.length >= count &&
        (best == vector_no_id || run.length < best_run.length)) {
      best = id;
      before_best = before;
      best_run = run;
    }
    before = id;
    id = run.next;
  }
  if (best == vector_no_id) return vector_no_id;

  if (before_best == vector_no_id) {
    m.free_head = best_run.next;
  } else {
    vector_free_run_s previous = read_run(m, before_best);
    previous.next = best_run.next;
    write_run(m, before_best, previous);
  }
  m.free_runs -= 1;
  m.free_records -= best_run.length;
  if (best_run.length > count) keep_remainder(m, best_run.first + count, best_run.length - count);
  return best_run.first;
}

void free_records(vector_manager_s& m, std::uint32_t id, std::uint32_t count) {
  const std::uint32_t next_id = m.next_id.load(std::memory_order_relaxed);
  if (m.reuse_enabled == 0 || id >= next_id) return;
  const std::uint32_t runs_before = m.free_runs;
  std::uint32_t left = std::min(count, next_id - id);
  while (left != 0) {
    const std::uint32_t in_block = std::min(left, m.records_per_block - (id & m.id_mask));
    push_run(m, id, in_block);
    id += in_block;
    left -= in_block;
  }
  m.frees_since_compaction += 1;
  if (m.frees_since_compaction >= compact_after_frees || runs_before >= compact_from_runs)
    compact(m);
}

}  // namespace korvex::store
