#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <string>

#include "engine/store_layout.h"
#include "engine/verify_files.h"
#include "storage/persistent_allocator_format.h"
#include "storage/vector_hash.h"

namespace korvex::verify {

namespace {

using ull = unsigned long long;

constexpr unsigned longest_chain = 1000;  // the allocator takes a longer one for a cycle
constexpr std::uint32_t largest_capacity = 1u << 20;

const char* text_of(persistent_header_fault fault) {
  switch (fault) {
    case persistent_header_fault::none:
      return "sound";
    case persistent_header_fault::truncated:
      return "the file is shorter than a header";
    case persistent_header_fault::wrong_magic:
      return "the file does not begin with the magic of an index";
    case persistent_header_fault::wrong_total:
      return "the header was written for a file of another length";
    case persistent_header_fault::used_too_big:
      return "the used part is longer than the file";
    case persistent_header_fault::used_too_small:
      return "the used part is shorter than the header";
    case persistent_header_fault::used_misaligned:
      return "the used part does not end where a block can";
  }
  return "";
}

const char* text_of(persistent_block_fault fault) {
  if (fault == persistent_block_fault::bad_offset) return "no block can begin there";
  if (fault == persistent_block_fault::bad_header) return "no block begins there";
  return "its size does not fit";
}

// Of a file whose header was found sound. Another process may be adding to it.
persistent_header_s header_of(const index_bytes& file) {
  auto header = read<persistent_header_s>(file.data);
  header.used_size = std::min(header.used_size, file.available);
  return header;
}

// The blocks of an index file, by their place and by the chains that lead to them.
class block_check {
 public:
  block_check(const index_bytes& file, findings* out)
      : file_(file), header_(header_of(file)), out_(*out) {}

  void run() {
    places_.learn(file_.data, header_.used_size);
    const bool whole = walk_in_order();
    for (std::uint64_t bucket = 0; bucket < persistent_chain_count; ++bucket) walk_chain(bucket);
    if (!whole) return;
    for (const auto& [offset, id] : in_order_) check_found(offset, id);
    if (deleted_blocks_ != header_.deleted_blocks || deleted_bytes_ != header_.deleted_bytes)
      out_.warning(
          "index file", "%llu deleted blocks of %llu bytes, the header counts %llu of %llu",
          static_cast<ull>(deleted_blocks_), static_cast<ull>(deleted_bytes_),
          static_cast<ull>(header_.deleted_blocks), static_cast<ull>(header_.deleted_bytes));
  }

 private:
  bool walk_in_order() {
    std::uint64_t offset = persistent_header_bytes;
    while (offset < header_.used_size) {
      persistent_block_s block;
      const auto fault = persistent_read_block(file_.data, header_.used_size, offset, &block);
      if (fault != persistent_block_fault::none) {
        out_.error("index file", "block at %llu: %s", static_cast<ull>(offset), text_of(fault));
        return false;
      }
      in_order_.emplace(offset, block.id);
      if (block.id == persistent_deleted_id) {
        ++deleted_blocks_;
        deleted_bytes_ += block.block_size;
      }
      offset += block.block_size;
    }
    return true;
  }

  void walk_chain(std::uint64_t bucket) {
    std::uint64_t offset = header_.chain_heads[bucket];
    for (unsigned walked = 0; offset != 0; ++walked) {
      persistent_block_s block;
      auto fault = persistent_read_block(file_.data, header_.used_size, offset, &block);
      if (fault == persistent_block_fault::none && !places_.contain(offset))
        fault = persistent_block_fault::bad_header;
      if (fault != persistent_block_fault::none) {
        out_.error("index file", "chain %llu leads to %llu: %s", static_cast<ull>(bucket),
                   static_cast<ull>(offset), text_of(fault));
        return;
      }
      if (block.id != persistent_deleted_id && persistent_bucket_of(block.id) != bucket) {
        out_.error("index file", "chain %llu leads to block %llu at %llu", static_cast<ull>(bucket),
                   static_cast<ull>(block.id), static_cast<ull>(offset));
        return;
      }
      if (walked == longest_chain || !on_chains_.insert(offset).second) {
        out_.error("index file", "chain %llu comes back to %llu, or is too long",
                   static_cast<ull>(bucket), static_cast<ull>(offset));
        return;
      }
      if (block.id != persistent_deleted_id && !found_.insert(block.id).second)
        out_.warning("index file", "block %llu at %llu is hidden by a newer one",
                     static_cast<ull>(block.id), static_cast<ull>(offset));
      offset = block.next_offset;
    }
  }

  // A block that was cut off while it was made is on no chain. It stays, once its id was asked for
  // again.
  void check_found(std::uint64_t offset, std::uint64_t id) {
    if (id == persistent_deleted_id || on_chains_.contains(offset)) return;
    const bool replaced = found_.contains(id);
    out_.add(replaced ? verify_severity::note : verify_severity::warning, "index file",
             "block %llu at %llu is on no chain%s", static_cast<ull>(id), static_cast<ull>(offset),
             replaced ? ", another one took its place" : "");
  }

  const index_bytes file_;
  const persistent_header_s header_;
  findings& out_;
  persistent_block_places places_;
  std::map<std::uint64_t, std::uint64_t> in_order_;  // offset -> id
  std::set<std::uint64_t> on_chains_;                // offsets
  std::set<std::uint64_t> found_;                    // ids
  std::uint64_t deleted_blocks_ = 0;
  std::uint64_t deleted_bytes_ = 0;
};

class record_check {
 public:
  record_check(const hnsw_s& record, findings* out) : record_(record), out_(*out) {}

  bool run(const std::string& directory) {
    check_core();
    check_instance(directory);
    check_rest();
    if (record_.shape_valid != 0) check_shape();
    return sound_;
  }

 private:
  // An opening refuses the index when one of these is wrong.
  void require(bool good, const char* field, std::uint64_t value) {
    if (good) return;
    sound_ = false;
    out_.error("record", "%s is %llu", field, static_cast<ull>(value));
  }
  void expect(bool good, const char* field, std::uint64_t value) {
    if (!good) out_.warning("record", "%s is %llu", field, static_cast<ull>(value));
  }

  void check_core() {
    require(record_.config_valid == 1, "config_valid", record_.config_valid);
    require(record_.dimension >= 1 && record_.dimension <= max_dimension, "dimension",
            record_.dimension);
    require(record_.element_bytes == 4, "element_bytes", record_.element_bytes);
    require(record_.id_bytes == 4, "id_bytes", record_.id_bytes);
    require(record_.neighbour_capacity >= 1 && record_.neighbour_capacity <= largest_capacity,
            "neighbour_capacity", record_.neighbour_capacity);
    const std::uint32_t metric = record_.distance_type;
    require(metric == DISTANCE_NONE || metric == DISTANCE_L2_SQUARE || metric == DISTANCE_L2 ||
                metric == DISTANCE_INNER_PRODUCT,
            "distance_type", metric);
    require(record_.shape_valid <= 1, "shape_valid", record_.shape_valid);
  }

  void check_shape() {
    require(record_.shape_units >= 1, "shape_units", record_.shape_units);
    require(record_.shape_capacity >= 1 && record_.shape_capacity <= largest_capacity,
            "shape_capacity", record_.shape_capacity);
    require(record_.shape_probes >= 1 && record_.shape_probes <= max_probes, "shape_probes",
            record_.shape_probes);
    expect(record_.vector_bytes == record_.dimension * 4, "vector_bytes", record_.vector_bytes);
  }

  void check_rest() {
    expect(record_.on_disk == 1, "on_disk", record_.on_disk);
    expect(record_.clean_close <= 1, "clean_close", record_.clean_close);
    if (!std::isfinite(record_.duplicate_threshold) || !std::isfinite(record_.probe_step))
      out_.warning("record", "a threshold is not a finite number");
  }

  // The directory of an index is named by its instance.
  void check_instance(const std::string& directory) {
    const std::string last = directory.substr(directory.find_last_of('/') + 1);
    const bool number = !last.empty() && last.size() < 4 &&
                        last.find_first_not_of("0123456789") == std::string::npos;
    if (record_.instance_id > 255 || (number && std::stoul(last) != record_.instance_id))
      out_.error("record", "instance_id is %u in directory %s", record_.instance_id,
                 directory.c_str());
  }

  const hnsw_s& record_;
  findings& out_;
  bool sound_ = true;
};

}  // namespace

const std::byte* find_block(const index_bytes& file, std::uint64_t id, std::uint64_t bytes) {
  const persistent_header_s header = header_of(file);
  persistent_block_places places;
  places.learn(file.data, header.used_size);
  std::uint64_t offset = header.chain_heads[persistent_bucket_of(id)];
  for (unsigned walked = 0; offset != 0 && walked < longest_chain; ++walked) {
    persistent_block_s block;
    if (persistent_read_block(file.data, header.used_size, offset, &block) !=
        persistent_block_fault::none)
      return nullptr;
    if (block.id == id)
      return block.requested_size >= bytes ? file.data + offset + persistent_block_header_bytes
                                           : nullptr;
    offset = block.next_offset;
  }
  return nullptr;
}

bool check_allocator(const index_bytes& file, findings* out) {
  persistent_header_s header;
  const auto fault = persistent_read_header(file.data, file.available, file.file_size, &header);
  if (fault != persistent_header_fault::none) {
    out->error("index file", "%s", text_of(fault));
    return false;
  }
  block_check(file, out).run();
  return true;
}

bool check_record(const index_bytes& file, const std::string& directory, hnsw_s* record,
                  findings* out) {
  const std::byte* const stored = find_block(file, record_block_id, sizeof(hnsw_s));
  if (stored == nullptr) {
    out->error("record", "there is none");
    return false;
  }
  std::memcpy(static_cast<void*>(record), stored, sizeof *record);
  record->memory_manager = nullptr;
  record->directory = nullptr;
  record->name = nullptr;
  record->distance = nullptr;
  record->distance_function = nullptr;
  record->bloom = nullptr;
  record->search_pool = nullptr;
  record->search_queue = nullptr;
  record->runtime = nullptr;
  constexpr hnsw_s never_filled{};
  if (std::memcmp(stored, &never_filled, sizeof never_filled) == 0) {
    out->warning("record", "its making was cut off: the next opening makes it anew");
    return false;
  }
  return record_check(*record, out).run(directory);
}

}  // namespace korvex::verify
