// Uses one index on disk from many threads at once and checks every answer.
// Usage: korvex_soak [SECONDS] [DIRECTORY]     5 seconds, a directory of its own
// Prints what was done. The exit code is 0 when nothing was wrong.
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <korvex/index.hpp>
#include <mutex>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using korvex::id_type;

constexpr std::size_t dimension = 24;
constexpr std::size_t centres = 40;
constexpr id_type most_rows = 60'000;  // then a new index begins
constexpr std::size_t neighbours = 10;

// The rows follow from their numbers, so that every answer can be checked.
std::vector<float> row_of(id_type number) {
  std::vector<float> row(dimension);
  std::mt19937 centre(number % centres);
  std::mt19937 own(number + 1);
  const auto part = [](std::mt19937* random) {
    return static_cast<float>((*random)() % 2'000) / 1'000 - 1;
  };
  for (float& value : row) value = 3 * part(&centre) + part(&own);
  return row;
}

double squared(std::span<const float> a, std::span<const float> b) {
  double sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const double difference = static_cast<double>(a[i]) - static_cast<double>(b[i]);
    sum += difference * difference;
  }
  return sum;
}

class soak {
 public:
  explicit soak(std::string directory) : directory_(std::move(directory)) {}

  // One index after another until the time is over. Whether all was right.
  bool run(std::chrono::seconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    for (int round = 0; std::chrono::steady_clock::now() < end && wrong_ == 0; ++round) {
      fs::remove_all(directory_);
      fs::create_directories(directory_);
      next_ = 0;
      use_and_close(end);
      check_reopened();
    }
    std::printf(
        "%llu added, %llu removed, %llu brought back, %llu searches, %llu syncs, "
        "%llu openings; %.4f of the rows that were asked for found; %d wrong\n",
        added_.load(), removed_.load(), restored_.load(), searches_.load(), syncs_.load(),
        openings_, own_searches_ == 0 ? 1.0 : found(), wrong_.load());
    return wrong_ == 0 && searches_ != 0 && (own_searches_ == 0 || found() >= 0.99);
  }

 private:
  using counter = std::atomic<unsigned long long>;

  double found() const {
    return static_cast<double>(own_found_) / static_cast<double>(own_searches_);
  }

  korvex::index open() {
    ++openings_;
    return korvex::index({.dimension = dimension,
                          .directory = directory_,
                          .name = "soak",
                          .labels = true,
                          .probes = 2,
                          .block_vectors = 4'096,
                          .indexing_threads = 2,
                          .search_threads = 2});
  }

  void use_and_close(std::chrono::steady_clock::time_point end) {
    korvex::index index = open();
    const auto over = [&] {
      return std::chrono::steady_clock::now() >= end || next_ >= most_rows || wrong_ != 0;
    };
    std::vector<std::thread> threads;
    const auto start = [&](auto step) {
      threads.emplace_back([this, &index, over, step, seed = threads.size()] {
        std::mt19937 random(static_cast<unsigned>(seed));
        guarded([&] {
          while (!over()) step(&index, &random);
        });
      });
    };
    for (int i = 0; i < 2; ++i) start([this](auto* at, auto*) { add(at); });
    for (int i = 0; i < 2; ++i) start([this](auto* at, auto* random) { search(at, random); });
    start([this](auto* at, auto* random) { search_by_session(at, random); });
    start([this](auto* at, auto* random) { hide_and_show(at, random); });
    start([this](auto* at, auto*) { sync(at); });
    for (std::thread& thread : threads) thread.join();
  }

  // Additions are numbered under one lock, which makes the id known with the row. They keep pace
  // with the searches, which wait for the linking of what was added before.
  void add(korvex::index* index) {
    if (added_ > 1'000 + 10 * searches_)
      return std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const std::lock_guard lock(adding_);
    const id_type number = next_;
    const id_type id = index->add(row_of(number), number * 3ull);
    expect(id == number, "an addition got another id");
    next_ = number + 1;
    ++added_;
  }

  // The first quarter of the ids may be hidden at any time, others never.
  static bool may_be_hidden(id_type id) { return id % 4 == 0; }

  void hide_and_show(korvex::index* index, std::mt19937* random) {
    if (next_ < 8) return std::this_thread::yield();
    const id_type id = (*random)() % next_ / 4 * 4;
    index->remove(id);
    ++removed_;
    expect(!index->contains(id), "a removed row is contained");
    const auto hits = index->search(row_of(id), neighbours);
    for (const korvex::hit& hit : hits) expect(hit.id != id, "a removed row was returned");
    if ((*random)() % 4 == 0) return;
    index->restore(id);
    ++restored_;
    expect(index->contains(id), "a restored row is not contained");
  }

  void search(korvex::index* index, std::mt19937* random) {
    const id_type known = next_;
    if (known < 8) return std::this_thread::yield();
    const id_type wanted = (*random)() % known;
    const std::vector<float> query = row_of(wanted);
    const korvex::hits hits = index->search(query, neighbours);
    check(query, hits);
    ++searches_;
    count_own(wanted, hits);
    if ((*random)() % 8 == 0) look_at(*index, wanted);
    if ((*random)() % 8 == 0) filtered(*index, query);
  }

  void search_by_session(korvex::index* index, std::mt19937* random) {
    const id_type known = next_;
    if (known < 8) return std::this_thread::yield();
    const id_type wanted = (*random)() % known;
    const std::vector<float> query = row_of(wanted);
    const korvex::hits hits = index->search_async(query, neighbours).get();
    check(query, hits);
    ++searches_;
    count_own(wanted, hits);
  }

  void sync(korvex::index* index) {
    index->flush();
    ++syncs_;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }

  void count_own(id_type wanted, const korvex::hits& hits) {
    if (may_be_hidden(wanted)) return;
    ++own_searches_;
    if (!hits.empty() && hits[0].id == wanted) ++own_found_;
  }

  // Ascending, nothing twice, and every distance that of the row.
  void check(std::span<const float> query, const korvex::hits& hits) {
    for (std::size_t i = 0; i < hits.size(); ++i) {
      expect(hits[i].id < next_ + 2, "an id that nobody was given");
      const double exact = squared(query, row_of(hits[i].id));
      expect(std::abs(exact - static_cast<double>(hits[i].distance)) <= 1e-3 + 1e-4 * exact,
             "a wrong distance");
      if (i == 0) continue;
      expect(hits[i - 1].distance <= hits[i].distance, "an order that is none");
      for (std::size_t before = 0; before < i; ++before)
        expect(hits[before].id != hits[i].id, "a row twice");
    }
  }

  void look_at(const korvex::index& index, id_type id) {
    expect(index.vector_at(id) == row_of(id), "a row is not what was added");
    expect(index.label(id) == id * 3ull, "a label is not what was added");
  }

  void filtered(const korvex::index& index, std::span<const float> query) {
    korvex::search_options options;
    options.filter = [](id_type id, std::uint64_t label) {
      return id % 2 == 1 && label == id * 3ull;
    };
    const korvex::hits hits = index.search(query, neighbours, options);
    check(query, hits);
    for (const korvex::hit& hit : hits) expect(hit.id % 2 == 1, "a row that the filter refuses");
  }

  // Nothing is lost by closing.
  void check_reopened() {
    guarded([this] {
      korvex::index index = open();
      expect(index.added() == next_, "rows are missing after reopening");
      index.wait_ready();
      std::mt19937 random(7);
      for (int i = 0; i < 200 && next_ != 0; ++i) {
        const id_type wanted = random() % next_;
        look_at(index, wanted);
        const std::vector<float> query = row_of(wanted);
        const korvex::hits hits = index.search(query, neighbours);
        check(query, hits);
        count_own(wanted, hits);
      }
    });
  }

  void expect(bool right, const char* what) {
    if (right) return;
    std::fprintf(stderr, "wrong: %s\n", what);
    ++wrong_;
  }

  void guarded(const std::function<void()>& body) {
    try {
      body();
    } catch (const std::exception& error) {
      expect(false, error.what());
    }
  }

  const std::string directory_;
  std::mutex adding_;
  std::atomic<id_type> next_{0};  // rows that are there
  counter added_{0}, removed_{0}, restored_{0}, searches_{0}, syncs_{0};
  counter own_searches_{0}, own_found_{0};
  unsigned long long openings_ = 0;
  std::atomic<int> wrong_{0};
};

}  // namespace

int main(int count, char** words) {
  const int seconds = count > 1 ? std::atoi(words[1]) : 5;
  const std::string directory =
      count > 2
          ? words[2]
          : (fs::temp_directory_path() / ("korvex-soak-" + std::to_string(std::random_device{}())))
                .string();
  const bool right = soak(directory).run(std::chrono::seconds(seconds));
  fs::remove_all(directory);
  return right ? EXIT_SUCCESS : EXIT_FAILURE;
}
