#include "measure.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <stdexcept>

#include "runtime/memory_report.h"

namespace korvex::compare {

namespace {

double seconds_now(bool processor_time) {
  if (processor_time) return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double resident_bytes() {
  return static_cast<double>(take_memory_usage().v[0]);
}

class comparison {
 public:
  comparison(const plan& plan, const dataset& data, const exact_truth& truth)
      : plan_(plan),
        data_(data),
        truth_(truth),
        indexes_(plan.peers.size()),
        answers_(data.queries.rows * plan.k) {
    for (const peer* const each : plan.peers) {
      peer_result& result = results_.emplace_back();
      result.name = each->name;
      for (const int threads : plan.build_threads) result.builds.push_back({threads, {}});
    }
  }

  std::vector<peer_result> run() {
    for (int round = 0; round < plan_.build_rounds; ++round)
      for (std::size_t setting = 0; setting < plan_.build_threads.size(); ++setting)
        in_turn(round, [&](std::size_t which) { build(which, setting); });
    for (const unsigned effort : plan_.efforts)
      for (std::size_t which = 0; which < indexes_.size(); ++which) warm_up(which, effort);
    for (int round = 0; round < plan_.search_rounds; ++round)
      for (const unsigned effort : plan_.efforts)
        in_turn(round, [&](std::size_t which) { time_level(which, effort); });
    return std::move(results_);
  }

 private:
  template <class Work>
  double seconds_of(const Work& work) const {
    const double begin = seconds_now(plan_.processor_time);
    work();
    return seconds_now(plan_.processor_time) - begin;
  }

  template <class Work>
  void in_turn(int round, const Work& work) {
    for (std::size_t i = 0; i < indexes_.size(); ++i)
      work(round % 2 == 0 ? i : indexes_.size() - 1 - i);
  }

  void build(std::size_t which, std::size_t setting) {
    peer_result& result = results_[which];
    build_times& times = result.builds[setting];
    indexes_[which].reset();
    const double before = resident_bytes();
    indexes_[which] = plan_.peers[which]->make(plan_.settings);
    times.seconds.push_back(seconds_of([&] { indexes_[which]->build(data_.base, times.threads); }));
    std::fprintf(stderr, "built %s with %d threads: %.2f s\n", result.name.c_str(), times.threads,
                 times.seconds.back());
    if (!result.description.empty()) return;
    result.description = indexes_[which]->description();
    result.bytes_a_vector = (resident_bytes() - before) / static_cast<double>(data_.base.rows);
  }

  void search(std::size_t which, unsigned effort) {
    indexes_[which]->search_all(data_.queries, effort, plan_.k, answers_.data());
  }

  void warm_up(std::size_t which, unsigned effort) {
    if (effort < indexes_[which]->least_effort()) return;
    const std::uint64_t before = indexes_[which]->evaluations();
    search(which, effort);
    level& made = results_[which].levels.emplace_back();
    made.effort = effort;
    made.recall = recall_of(truth_, data_, answers_);
    made.evaluations = static_cast<double>(indexes_[which]->evaluations() - before) /
                       static_cast<double>(data_.queries.rows);
  }

  void time_level(std::size_t which, unsigned effort) {
    for (level& candidate : results_[which].levels)
      if (candidate.effort == effort)
        candidate.seconds.push_back(seconds_of([&] { search(which, effort); }));
  }

  const plan& plan_;
  const dataset& data_;
  const exact_truth& truth_;
  std::vector<std::unique_ptr<adapter>> indexes_;
  std::vector<std::uint32_t> answers_;
  std::vector<peer_result> results_;
};

}  // namespace

std::vector<peer_result> measure(const plan& plan, const dataset& data, const exact_truth& truth) {
  if (plan.peers.empty() || plan.build_threads.empty() || plan.efforts.empty() ||
      plan.build_rounds < 1 || plan.search_rounds < 1)
    throw std::invalid_argument("nothing to measure");
  return comparison(plan, data, truth).run();
}

}  // namespace korvex::compare
