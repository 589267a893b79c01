#ifndef KORVEX_TESTS_SOAK_STEPS_H
#define KORVEX_TESTS_SOAK_STEPS_H

#include <mutex>
#include <random>

#include "ledger.h"

namespace korvex::soak {

// What the threads do with one open index, one step at a time. Each may run on any number of threads beside the others,
// but for hide_and_show, of which there is one.
class steps {
 public:
  steps(index* used, ledger* known) : index_(*used), ledger_(*known) {}

  void add();
  void hide_and_show(std::mt19937* random);
  void sync();
  void search_directly(std::mt19937* random);
  void search_by_session(std::mt19937* random);  // a listener is told, a filter asked
  void search_and_poll(std::mt19937* random);
  void search_in_bulk(std::mt19937* random);
  // Reads a row as it is stored.
  void look_at(id_type id);
  // The row is the first answer to itself.
  void find(id_type wanted);

 private:
  // A row that is there; false while there are too few.
  bool choose(std::mt19937* random, id_type* wanted) const;
  void search_restricted(id_type wanted, std::mt19937* random);
  void go_on(std::uint32_t session, id_type wanted, bool filtered, std::span<const hit> first);
  hits with_distances(std::span<const float> query, std::span<const id_type> ids) const;
  hits answer_of(std::uint32_t session) const;

  index& index_;
  ledger& ledger_;
  std::mutex adding_;
};

}  // namespace korvex::soak

#endif  // KORVEX_TESTS_SOAK_STEPS_H
