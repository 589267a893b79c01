#include "storage/hash_table.h"

#include <cstring>
#include <set>

#include "fuzz/target.h"

// The first byte chooses what is removed, then comes the damage to a table of six entries and two
// free items.
namespace korvex::fuzz {
namespace {

constexpr std::uint64_t data_bytes = 40;
constexpr int kind = 8;

pers_hash_table_s* open(const std::string& folder) {
  vectpool_conf_s config;
  config.directory = folder.c_str();
  config.prefix = "table";
  config.extension = "korvex";
  config.persistent = 1;
  return pers_hash_table_init(data_bytes, kind, &config);
}

void build(const std::string& folder) {
  pers_hash_table_s* const table = open(folder);
  for (std::uint64_t key = 1; key <= 8; ++key)  // two chains
    std::memset(pers_hash_table_get(table, key * 1031 % 5000), static_cast<int>(key), data_bytes);
  pers_hash_table_remove(table, 1031);
  pers_hash_table_remove(table, 3 * 1031);
  pers_hash_table_free(table);
}

std::uint32_t count_entries(pers_hash_table_s* table) {
  std::uint32_t count = 0;
  pers_hash_table_visit(
      table,
      [](void* counter, std::uint64_t key, void* block) {
        KORVEX_FUZZ_CHECK(key != 0);
        std::memset(block, 0x33, data_bytes);
        ++*static_cast<std::uint32_t*>(counter);
      },
      &count);
  return count;
}

}  // namespace

void hash_table(const std::uint8_t* data, std::size_t size) {
  static const workshop shop("hash_table", [](const workshop& made) { build(made.path()); });
  input in(data, size);
  const auto choice = in.number<std::uint8_t>();
  shop.lay_out(&in);
  pers_hash_table_s* table = open(shop.path());
  if (table == nullptr) return;
  KORVEX_FUZZ_CHECK(count_entries(table) == pers_hash_table_entry_count(table));

  // Different keys never share a block, whatever the list of free items says.
  std::set<void*> blocks;
  for (std::uint64_t key = 1; key <= 12; ++key) {
    void* const block = pers_hash_table_get(table, key * 1031 % 5000);
    KORVEX_FUZZ_CHECK(block != nullptr && blocks.insert(block).second);
    std::memset(block, 0x77, data_bytes);
  }
  pers_hash_table_remove(table, choice % 13u * 1031u % 5000u);
  pers_hash_table_remove_old_entries(table, 1, 2);
  pers_hash_table_remove_oldest(table, choice % 4u);
  const std::uint32_t kept = pers_hash_table_entry_count(table);
  KORVEX_FUZZ_CHECK(count_entries(table) == kept);
  pers_hash_table_free(table);

  table = open(shop.path());
  KORVEX_FUZZ_CHECK(pers_hash_table_entry_count(table) == kept);
  pers_hash_table_remove_oldest(table, kept);
  KORVEX_FUZZ_CHECK(pers_hash_table_entry_count(table) == 0);
  pers_hash_table_free(table);
}

}  // namespace korvex::fuzz
