#include <memory>
#include <set>

#include "engine/configuration.h"
#include "engine/points.h"
#include "engine/verify.h"
#include "fuzz/target.h"
#include "korvex/korvex.h"
#include "search/direct.h"

// An index as a host opens it: query, add, delete, close, and once more. `record` changes bytes of
// the index file alone and keeps the settings that it holds, threads among them; `directory` changes
// any file of an index that has labels, a filter and cached results.
namespace korvex::fuzz {
namespace {

constexpr int dimension = 4;
constexpr unsigned points = 24;
constexpr unsigned k = 5;
constexpr const char* folder_below = "/nimbra-korvex/0";

struct given_up {
  void operator()(Korvex* index) const { index->destroy(); }
  void operator()(KorvexQuery* query) const { query->destroy(); }
};
using index_ptr = std::unique_ptr<Korvex, given_up>;
using query_ptr = std::unique_ptr<KorvexQuery, given_up>;

index_ptr open(const workshop& shop) {
  return index_ptr(KorvexOnDiskInstance(dimension, shop.base().c_str(), "small"));
}

// Whole numbers, so that the result cache tells the vectors apart.
std::vector<float> vector_of(unsigned number) {
  std::vector<float> values;
  for (unsigned i = 0; i < dimension; ++i)
    values.push_back(static_cast<float>((number * 7919 + i * 104729) % 97));
  return values;
}

void build(const workshop& shop, bool everything) {
  const index_ptr index = open(shop);
  index->setPatternProbes(2);
  index->setAllocationUnits(16);
  index->setConstellationSize(4);
  index->setThreads(1);
  index->setQueryThreads(1, 4);
  korvex_enable_label(index->get_base(0), everything ? 1 : 0);
  index->enableDuplicateDetection(everything ? 1 : 0);
  for (unsigned i = 0; i < points; ++i) index->addVector(vector_of(i).data(), 0, 1000 + i);
  index->waitForIndexReady();
  index->deleteVector(5, 0);
  const query_ptr query(index->createQuerySession(20, k));
  query->query(vector_of(3).data(), 0, k);
  query->getResultIds(0);
}

// Ids of points, each at most once.
void check_answer(Korvex* index, KorvexQuery* query) {
  const korvex_results_s* const found = query->getResults(0);
  if (found == nullptr) return;
  const unsigned added = load_counter(index->get_base(0)->added);
  std::set<unsigned> ids;
  for (unsigned i = 0; i < found->count; ++i)
    KORVEX_FUZZ_CHECK(found->ids[i] < added && ids.insert(found->ids[i]).second);
}

void ask(Korvex* index, unsigned number) {
  const query_ptr query(index->createQuerySession(20, k));
  if (query == nullptr || query->query(vector_of(number).data(), 0, k) != 0) return;
  check_answer(index, query.get());
  query->more();
  check_answer(index, query.get());

  std::uint32_t ids[k];
  std::uint32_t count = 0;
  if (korvex_search_direct(index->get_base(0), vector_of(number).data(), 1, k, nullptr, ids,
                           nullptr, &count) != 1)
    return;
  for (std::uint32_t i = 0; i < count; ++i)
    KORVEX_FUZZ_CHECK(ids[i] < load_counter(index->get_base(0)->added));
}

// An addition takes one place, or none.
void add(Korvex* index, unsigned number) {
  const unsigned before = load_counter(index->get_base(0)->added);
  index->addVector(vector_of(number).data(), 0, number);
  const unsigned after = load_counter(index->get_base(0)->added);
  KORVEX_FUZZ_CHECK(after == before || after == before + 1);
}

// The number of points at the end.
unsigned use(Korvex* index) {
  ask(index, 3);
  for (unsigned number = 100; number < 104; ++number) add(index, number);
  index->waitForIndexReady();
  ask(index, 101);
  const unsigned added = load_counter(index->get_base(0)->added);
  for (unsigned id = 0; id < std::min(added + 1, 40u); ++id) {
    korvex_get_label(index->get_base(0), id);
    index->distance(id, vector_of(1).data());
  }
  index->deleteVector(2, 0);
  ask(index, 2);
  index->syncToDisk(0);
  return added;
}

void open_and_use(const workshop& shop) {
  const std::string index_file = shop.path() + "/small.korvex";
  korvex_verify_directory(shop.path(), "small");
  const std::string before = beginning_of(index_file);
  unsigned added = 0;
  {
    const index_ptr index = open(shop);
    if (index == nullptr) {
      KORVEX_FUZZ_CHECK(beginning_of(index_file) == before);
      return;
    }
    added = use(index.get());
  }
  const verify_report report = korvex_verify_directory(shop.path(), "small");
  const index_ptr again = open(shop);
  KORVEX_FUZZ_CHECK(again != nullptr);
  ask(again.get(), 103);
  KORVEX_FUZZ_CHECK(load_counter(again->get_base(0)->added) == added || added == 0);
}

}  // namespace

void record(const std::uint8_t* data, std::size_t size) {
  static const workshop shop(
      "record", [](const workshop& made) { build(made, false); }, folder_below);
  input in(data, size);
  shop.lay_out(&in, "small.korvex");
  open_and_use(shop);
}

void directory(const std::uint8_t* data, std::size_t size) {
  static const workshop shop(
      "directory", [](const workshop& made) { build(made, true); }, folder_below);
  input in(data, size);
  shop.lay_out(&in);
  open_and_use(shop);
}

}  // namespace korvex::fuzz
