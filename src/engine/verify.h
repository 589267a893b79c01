#ifndef KORVEX_ENGINE_VERIFY_H
#define KORVEX_ENGINE_VERIFY_H

#include <cstdint>
#include <string>
#include <vector>

#include "engine/record.h"

// The check of an index on disk. It reads, and nothing else: no file is written, made or kept
// locked, and files are taken for hostile: whatever they hold, the check ends with an answer.
namespace korvex {

enum class verify_severity {
  note,     // explains, harms nothing
  warning,  // the next opening mends it, or something is lost that can be made again
  error,    // data is lost, or would be read wrong
};

struct verify_finding {
  verify_severity severity;
  std::string check;  // what was looked at: "graph", "flags", ...
  std::string text;
};

enum class verify_outcome {
  checked,
  not_found,   // no index of that name there
  in_use,      // somebody has it open, and force was not asked for
  unreadable,  // the index file cannot be opened, or memory ran out
};

struct verify_file {
  std::string name;
  std::string content;            // "index", "vectors", ..., "unknown"
  std::uint64_t bytes;            // the length
  std::uint64_t allocated_bytes;  // what it takes on disk
};

struct verify_statistics {
  std::uint32_t points = 0;  // ids that were handed out
  std::uint32_t live = 0;    // neither deleted nor duplicate
  std::uint32_t deleted = 0;
  std::uint32_t duplicates = 0;
  std::uint32_t unlinked = 0;  // live, without neighbours, and no probe's seed
  std::uint64_t links = 0;
  std::uint32_t most_links = 0;   // of one point
  std::uint32_t unreachable = 0;  // live, and on no way from a seed or a star
  std::uint32_t stars = 0;
  std::uint32_t star_arrays = 0;
  std::uint32_t cached_results = 0;
  std::uint32_t bloom_units = 0;
  std::uint32_t bloom_items = 0;
};

struct verify_report {
  verify_outcome outcome = verify_outcome::checked;
  std::string reason;     // unless checked
  std::string directory;  // of the index
  std::string name;
  bool in_use = false;  // somebody had it open
  bool record_read = false;
  hnsw_s record{};  // its pointers are null
  std::vector<verify_finding> findings;
  // All that were found; of each check only the first ones are listed.
  std::uint64_t notes = 0, warnings = 0, errors = 0;
  verify_statistics statistics;
  std::vector<verify_file> files;  // of this index, by name

  bool clean() const { return outcome == verify_outcome::checked && warnings == 0 && errors == 0; }
};

struct verify_options {
  bool force = false;  // read an index that is in use; what changes meanwhile may look like damage
  bool summary = false;  // configuration, files and counts only: no links, stars, caches
};

// Checks the index in `directory`: that of its files, or the base directory that it was opened
// with (its instance 0 then). An empty name stands for the default one, or for the only index
// there.
verify_report korvex_verify_directory(const std::string& directory, const std::string& name,
                                      const verify_options& options = {});

}  // namespace korvex

#endif  // KORVEX_ENGINE_VERIFY_H
