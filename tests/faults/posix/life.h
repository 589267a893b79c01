#ifndef KORVEX_TESTS_FAULTS_LIFE_H
#define KORVEX_TESTS_FAULTS_LIFE_H

#include <cstdint>
#include <string>

#include "attempts.h"
#include "korvex/engine.h"
#include "korvex/korvex.h"

namespace korvex::test {

struct life_plan {
  std::string directory;  // empty: in memory
  int indexing_threads = 0;
  int search_threads = 1;
  std::uint64_t cache_bytes = 0;
  bool removes_files = false;
};

// What a host does with an index from its opening to its end.
class life : public attempts {
 public:
  static constexpr int rows = 56;
  static constexpr int rows_of_first_opening = 36;

  explicit life(const life_plan& plan) : plan_(plan) {}

  // Opens the index, which holds the rows before `first`, adds those before `end`, searches in every way, and closes it.
  void live(int first, int end);
  // Reopens the files when nothing fails: what was added is there, can be found, and nothing is damaged.
  void expect_whole(int end);

 private:
  bool open();
  bool configure();
  bool add(int row);
  bool find_directly(int end);
  bool find_allowed(int end);
  bool find_by_session(int end);
  bool page_and_refine(int end);
  bool find_by_listener(int end);
  bool find_by_batch(int end);
  void hide_and_show(int end);
  void sync();
  bool look_at_all(int end);
  void close();

  const life_plan& plan_;
  Korvex* index_ = nullptr;
  hnsw_s* record_ = nullptr;
};

}  // namespace korvex::test

#endif  // KORVEX_TESTS_FAULTS_LIFE_H
