#include "steps.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace korvex::soak {
namespace {

constexpr int neighbours = 10;
constexpr id_type few_rows = 40;

void pause(int ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// How often a session's listener was told.
struct listener {
  std::atomic<int> told{0};

  static int on_results(unsigned, const void* self) {
    ++static_cast<listener*>(const_cast<void*>(self))->told;
    return 0;
  }
  static int only_odd(const void*, unsigned id, unsigned long long label) {
    return id % 2 == 0 || label != label_of(id) ? 1 : 0;
  }
  // False when nobody told for a minute.
  bool waits_for(int results) const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    // Whole milliseconds: some systems round what is shorter down to nothing.
    while (told < results && std::chrono::steady_clock::now() < end) pause(1);
    return told >= results;
  }
};

bool contains(std::span<const hit> row, id_type id) {
  return std::any_of(row.begin(), row.end(), [id](const hit& each) { return each.id == id; });
}

}  // namespace

bool steps::choose(std::mt19937* random, id_type* wanted) const {
  const id_type known = ledger_.next;
  if (known < few_rows) {
    std::this_thread::yield();
    return false;
  }
  *wanted = (*random)() % known;
  return true;
}

// Additions are numbered under one lock, which makes the id known with the row. They keep pace with the searches, which
// wait for the linking of what was added before.
void steps::add() {
  if (ledger_.added > 1'000 + 10 * ledger_.searches) return pause(1);
  const std::lock_guard lock(adding_);
  const id_type number = ledger_.next;
  if (number >= most_rows) return;
  const id_type id = index_.add(row_of(number), label_of(number));
  ledger_.expect(id == number, "an addition got another id");
  ledger_.next = number + 1;
  ++ledger_.added;
}

void steps::hide_and_show(std::mt19937* random) {
  id_type chosen = 0;
  if (!choose(random, &chosen)) return;
  const id_type id = chosen / 4 * 4;
  index_.remove(id);
  ledger_.note_hidden(id);
  ++ledger_.removed;
  ledger_.expect(!index_.contains(id), "a removed row is contained");
  const ledger::moment begin = ledger_.now();
  ledger_.check(row_of(id), index_.search(row_of(id), neighbours), begin);
  if ((*random)() % 4 == 0) return;
  ledger_.note_shown(id);
  index_.restore(id);
  ++ledger_.restored;
  ledger_.expect(index_.contains(id), "a restored row is not contained");
}

void steps::sync() {
  index_.flush();
  ++ledger_.syncs;
  pause(100);
}

void steps::look_at(id_type id) {
  ledger_.expect(index_.vector_at(id) == row_of(id), "a row is not what was added");
  ledger_.expect(index_.label(id) == label_of(id), "a label is not what was added");
}

void steps::find(id_type wanted) {
  const ledger::moment begin = ledger_.now();
  const hits row = index_.search(row_of(wanted), neighbours);
  ledger_.check_own(wanted, row, begin);
  ledger_.expect(row.size() == neighbours, "an answer that is too short");
}

void steps::search_directly(std::mt19937* random) {
  id_type wanted = 0;
  if (!choose(random, &wanted)) return;
  find(wanted);
  if ((*random)() % 8 == 0) look_at(wanted);
  if ((*random)() % 8 == 0) search_restricted(wanted, random);
}

// Rows of a batch come without distances and end in zeros. Two that are equal but for rounding may stand in either order.
hits steps::with_distances(std::span<const float> query, std::span<const id_type> ids) const {
  while (!ids.empty() && ids.back() == 0) ids = ids.first(ids.size() - 1);
  hits row;
  for (const id_type id : ids) {
    auto distance = static_cast<float>(ledger_.distance(query, row_of(id)));
    if (!row.empty() && distance > 0.9999f * row.back().distance)
      distance = std::max(distance, row.back().distance);
    row.push_back({id, distance});
  }
  return row;
}

// A filter, a list or a bitmap of allowed rows.
void steps::search_restricted(id_type wanted, std::mt19937* random) {
  const id_type known = ledger_.next;
  search_options options;
  std::vector<id_type> list;
  std::vector<std::uint64_t> bits;
  const unsigned way = (*random)() % 3;
  if (way == 0) {
    options.filter = [](id_type id, std::uint64_t label) {
      return id % 2 == 1 && label == label_of(id);
    };
  } else if (way == 1) {
    for (int i = 0; i < 40; ++i) list.push_back((*random)() % known | 1);
    options.allowed = list;
  } else {
    bits.assign(known / 64 + 1, 0xAAAAAAAAAAAAAAAA);
    options.allowed_bits = bits;
  }
  const std::vector<float> query = row_of(wanted);
  const ledger::moment begin = ledger_.now();
  const hits row = index_.search(query, neighbours, options);
  ledger_.check(query, row, begin);
  ++ledger_.searches;
  for (const hit& each : row) {
    ledger_.expect(each.id % 2 == 1, "a row that is not allowed");
    ledger_.expect(way != 1 || std::count(list.begin(), list.end(), each.id) != 0,
                   "a row that is not listed");
  }
  if (way != 1) ledger_.expect(row.size() == neighbours, "a restricted answer that is too short");
}

void steps::search_and_poll(std::mt19937* random) {
  id_type wanted = 0;
  if (!choose(random, &wanted)) return;
  const ledger::moment begin = ledger_.now();
  pending search = index_.search_async(row_of(wanted), neighbours);
  while (!search.ready()) std::this_thread::yield();
  const hits first = search.get();
  ledger_.check_own(wanted, first, begin);
  if ((*random)() % 4 != 0) return;
  search.more();
  const hits next = search.get();
  ledger_.check(row_of(wanted), next, begin);
  for (const hit& each : next) ledger_.expect(!contains(first, each.id), "a row delivered twice");
}

hits steps::answer_of(std::uint32_t session) const {
  hits row;
  const korvex_results_s* const found = korvex_search_result(index_.record(), session, 0);
  for (std::uint32_t i = 0; found != nullptr && i < found->count; ++i)
    row.push_back({found->ids[i], found->distances[i]});
  return row;
}

void steps::search_by_session(std::mt19937* random) {
  id_type wanted = 0;
  if (!choose(random, &wanted)) return;
  hnsw_s* const record = index_.record();
  listener host;
  const bool filtered = (*random)() % 4 == 0;
  const std::uint32_t session = korvex_search_init(record, neighbours, nullptr);
  ledger_.expect(session != 0, "no session");
  korvex_search_set_callbacks(record, session, filtered ? listener::only_odd : nullptr,
                              listener::on_results, &host);
  for (int query = 1; query <= 4; ++query, wanted = (*random)() % ledger_.next) {
    if (filtered) wanted = wanted / 2 * 2 | 1;
    if (wanted >= ledger_.next) wanted -= 2;
    const ledger::moment begin = ledger_.now();
    ledger_.expect(korvex_search(record, session, row_of(wanted).data(), 0, neighbours) == 0,
                   "a search that was refused");
    ledger_.expect(host.waits_for(query), "a listener that nobody told");
    const hits row = answer_of(session);
    ledger_.check_own(wanted, row, begin);
    for (const hit& each : row)
      ledger_.expect(!filtered || each.id % 2 == 1, "a row that the filter refuses");
    if (query == 4) go_on(session, wanted, filtered, row);
  }
  korvex_search_free(record, session);
}

// What follows a session's answer: the next rows, the same again without one of them, a look around.
void steps::go_on(std::uint32_t session, id_type wanted, bool filtered,
                  std::span<const hit> first) {
  hnsw_s* const record = index_.record();
  const std::vector<float> query = row_of(wanted);
  ledger::moment begin = ledger_.now();
  ledger_.expect(korvex_search_more(record, session) == 0, "no more");
  const hits next = answer_of(session);
  ledger_.check(query, next, begin);
  for (const hit& each : next) {
    ledger_.expect(!contains(first, each.id), "a row delivered twice");
    ledger_.expect(!filtered || each.id % 2 == 1, "a row that the filter refuses");
  }
  begin = ledger_.now();
  ledger_.expect(korvex_search_refine(record, session) == 0, "no refinement");
  ledger_.check(query, answer_of(session), begin);
  ledger_.expect(korvex_search_filter(record, session, wanted) == 0, "an exclusion refused");
  begin = ledger_.now();
  ledger_.expect(korvex_search(record, session, query.data(), 0, neighbours) == 0,
                 "a search that was refused");
  const hits without = answer_of(session);
  ledger_.check(query, without, begin);
  ledger_.expect(!contains(without, wanted), "a row that was excluded");
  ledger_.searches += 3;
}

void steps::search_in_bulk(std::mt19937* random) {
  constexpr int queries = 12;
  id_type wanted[queries];
  std::vector<float> block;
  for (id_type& each : wanted) {
    if (!choose(random, &each)) return;
    const std::vector<float> row = row_of(each);
    block.insert(block.end(), row.begin(), row.end());
  }
  listener host;
  const bool listens = (*random)() % 2 == 0;
  korvex_bulk_search_s* const bulk = korvex_bulk_search_alloc();
  const ledger::moment begin = ledger_.now();
  ledger_.expect(korvex_bulk_search(index_.record(), bulk, block.data(), queries, 0, neighbours,
                                    listens ? listener::on_results : nullptr, &host) == 0,
                 "a batch that was refused");
  if (listens) ledger_.expect(host.waits_for(1), "a listener that nobody told");
  const korvex_bulk_results_s* const answer = korvex_bulk_search_results(index_.record(), bulk);
  for (int q = 0; q < queries; ++q) {
    const std::uint32_t* const ids = answer->ids + q * neighbours;
    const hits row = with_distances(row_of(wanted[q]), {ids, neighbours});
    ledger_.check_own(wanted[q], row, begin);
  }
  korvex_bulk_search_free(bulk);
}

}  // namespace korvex::soak
