// Uses indexes in memory and on disk from many threads at once and checks every answer.
// Usage: korvex_soak [SECONDS] [DIRECTORY]     5 seconds, a directory of its own
// Prints what was done. The exit code is 0 when nothing was wrong.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "steps.h"

namespace korvex::soak {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

// The indexes that take turns.
struct kind {
  bool on_disk;
  korvex::metric metric;
  int probes;
  int indexing_threads;
  int search_threads;
};
constexpr kind kinds[] = {{true, metric::l2_squared, 2, 2, 2},
                          {false, metric::l2, 1, 1, 2},
                          {true, metric::l2, 1, 1, 1},
                          {false, metric::l2_squared, 3, 0, 2}};

class run {
 public:
  explicit run(std::string directory)
      : directory_(std::move(directory)), ledger_(std::make_unique<ledger>()) {}

  // One index after another until the time is over; one on disk is opened several times. Whether all was right.
  bool until(steady_clock::duration time) {
    const auto end = steady_clock::now() + time;
    const steady_clock::duration turn = std::clamp<steady_clock::duration>(
        time / 12, std::chrono::milliseconds(500), std::chrono::seconds(20));
    for (std::size_t round = 0; going_on(end); ++round) {
      kind_ = kinds[round % std::size(kinds)];
      fs::remove_all(directory_);
      fs::create_directories(directory_);
      ledger_->begin_anew(kind_.metric);
      for (int opening = 0; opening < (kind_.on_disk ? 3 : 1) && going_on(end); ++opening)
        guarded([&] { use(std::min(end, steady_clock::now() + turn)); });
      if (kind_.on_disk) guarded([&] { use(steady_clock::now()); });
    }
    print();
    return ledger_->wrong == 0 && ledger_->searches != 0 && found() >= 0.99;
  }

 private:
  bool going_on(steady_clock::time_point end) const {
    return steady_clock::now() < end && ledger_->wrong == 0;
  }

  // Opens the index, looks at what it kept of the last time, and sets the threads at it.
  void use(steady_clock::time_point end) {
    ++ledger_->openings;
    index_options options;
    options.dimension = dimension;
    options.metric = kind_.metric;
    options.directory = kind_.on_disk ? directory_ : "";
    options.name = "soak";
    options.labels = true;
    options.probes = kind_.probes;
    options.block_vectors = 4'096;
    options.indexing_threads = kind_.indexing_threads;
    options.search_threads = kind_.search_threads;
    index opened(options);
    steps work(&opened, ledger_.get());
    check_kept(opened, &work);
    std::vector<std::thread> threads;
    const auto start = [&](auto step) {
      threads.emplace_back([this, end, step, seed = threads.size()] {
        std::mt19937 random(static_cast<unsigned>(seed));
        guarded([&] {
          while (going_on(end) && ledger_->next < most_rows) step(&random);
        });
      });
    };
    for (int i = 0; i < 2; ++i) start([&](auto*) { work.add(); });
    start([&](auto* random) { work.search_directly(random); });
    start([&](auto* random) { work.search_by_session(random); });
    start([&](auto* random) { work.search_and_poll(random); });
    start([&](auto* random) { work.search_in_bulk(random); });
    start([&](auto* random) { work.hide_and_show(random); });
    if (kind_.on_disk) start([&](auto*) { work.sync(); });
    for (std::thread& thread : threads) thread.join();
  }

  // Nothing is lost by closing, and what was hidden stays hidden.
  void check_kept(const index& opened, steps* work) {
    const id_type rows = ledger_->next;
    ledger_->expect(opened.added() == rows, "rows are missing after reopening");
    opened.wait_ready();
    for (id_type id = 0; id < rows; ++id)
      ledger_->expect(opened.contains(id) != ledger_->is_hidden(id),
                      "a row is hidden, or is not, unlike before");
    std::mt19937 random(7);
    for (int i = 0; i < 200 && rows > 100; ++i) {
      const id_type wanted = random() % rows;
      work->look_at(wanted);
      work->find(wanted);
    }
  }

  template <class Body>
  void guarded(const Body& body) {
    try {
      body();
    } catch (const std::exception& error) {
      ledger_->expect(false, error.what());
    }
  }

  double found() const {
    return ledger_->own_searches == 0 ? 1.0
                                      : static_cast<double>(ledger_->own_found) /
                                            static_cast<double>(ledger_->own_searches);
  }

  void print() const {
    const ledger& done = *ledger_;
    std::printf(
        "%llu added, %llu removed, %llu brought back, %llu searches, %llu syncs, %llu openings; "
        "%.4f of the rows that were asked for found; %d wrong\n",
        done.added.load(), done.removed.load(), done.restored.load(), done.searches.load(),
        done.syncs.load(), done.openings.load(), found(), done.wrong.load());
  }

  const std::string directory_;
  const std::unique_ptr<ledger> ledger_;
  kind kind_{};
};

}  // namespace
}  // namespace korvex::soak

int main(int count, char** words) {
  namespace fs = std::filesystem;
  const int seconds = count > 1 ? std::atoi(words[1]) : 5;
  const std::string own = "korvex-soak-" + std::to_string(std::random_device{}());
  const std::string directory = count > 2 ? words[2] : (fs::temp_directory_path() / own).string();
  const bool right = korvex::soak::run(directory).until(std::chrono::seconds(seconds));
  fs::remove_all(directory);
  return right ? EXIT_SUCCESS : EXIT_FAILURE;
}
