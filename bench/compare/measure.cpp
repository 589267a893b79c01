#include "measure.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <stdexcept>

#include "processors.h"
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
        answers_(data.queries.rows * plan.k),
        latencies_(data.queries.rows) {
    for (const peer* const each : plan.peers) {
      peer_result& result = results_.emplace_back();
      result.name = each->name;
      for (const int threads : plan.build_threads) result.builds.push_back({threads, {}});
      for (const int threads : plan.search_threads) result.curves.push_back({threads, {}});
    }
  }

  std::vector<peer_result> run() {
    for (int round = 0; round < plan_.build_rounds; ++round) {
      for (std::size_t setting = 0; setting < plan_.build_threads.size(); ++setting)
        in_turn(round, [&](std::size_t which) { build(which, setting); });
      tell(phase::building, round);
    }
    each_level([&](unsigned effort, std::size_t setting) {
      for (std::size_t which = 0; which < indexes_.size(); ++which) warm_up(which, setting, effort);
    });
    for (int round = 0; round < plan_.search_rounds; ++round) {
      each_level([&](unsigned effort, std::size_t setting) {
        in_turn(round, [&](std::size_t which) { time_level(which, setting, effort); });
      });
      tell(phase::searching, round);
    }
    return std::move(results_);
  }

 private:
  template <class Work>
  double seconds_of(const Work& work) const {
    const double begin = seconds_now(plan_.processor_time);
    work();
    return seconds_now(plan_.processor_time) - begin;
  }

  void tell(phase of, int round) const {
    if (plan_.after_round) plan_.after_round(of, round + 1, results_);
  }

  template <class Work>
  void each_level(const Work& work) const {
    for (const unsigned effort : plan_.efforts)
      for (std::size_t setting = 0; setting < plan_.search_threads.size(); ++setting)
        work(effort, setting);
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
    const processors_of_process bound(times.threads);
    indexes_[which] = plan_.peers[which]->make(plan_.settings);
    times.seconds.push_back(seconds_of([&] { indexes_[which]->build(data_.base, times.threads); }));
    std::fprintf(stderr, "built %s with %d threads: %.2f s\n", result.name.c_str(), times.threads,
                 times.seconds.back());
    if (!result.description.empty()) return;
    result.description = indexes_[which]->description();
    result.bytes_a_vector = (resident_bytes() - before) / static_cast<double>(data_.base.rows);
  }

  void search(std::size_t which, int threads) {
    indexes_[which]->search_all(
        {data_.queries, plan_.k, threads, answers_.data(), latencies_.data()});
  }

  void warm_up(std::size_t which, std::size_t setting, unsigned effort) {
    curve& of = results_[which].curves[setting];
    if (!indexes_[which]->prepare(effort, of.threads)) return;
    const std::uint64_t before = indexes_[which]->evaluations();
    std::fill(answers_.begin(), answers_.end(), no_id);  // nobody lives on another's answers
    search(which, of.threads);
    level& made = of.levels.emplace_back();
    made.effort = effort;
    made.recall = recall_of(truth_, data_, answers_);
    made.evaluations = static_cast<double>(indexes_[which]->evaluations() - before) /
                       static_cast<double>(data_.queries.rows);
  }

  void time_level(std::size_t which, std::size_t setting, unsigned effort) {
    curve& of = results_[which].curves[setting];
    for (level& candidate : of.levels) {
      if (candidate.effort != effort) continue;
      indexes_[which]->prepare(effort, of.threads);
      latencies_[0] = 0;
      candidate.seconds.push_back(seconds_of([&] { search(which, of.threads); }));
      if (latencies_[0] == 0) continue;
      candidate.p50_seconds.push_back(latency(0.50));
      candidate.p99_seconds.push_back(latency(0.99));
    }
  }

  double latency(double share) {
    const auto place = static_cast<std::ptrdiff_t>(share * static_cast<double>(latencies_.size()));
    std::nth_element(latencies_.begin(), latencies_.begin() + place, latencies_.end());
    return latencies_[static_cast<std::size_t>(place)];
  }

  const plan& plan_;
  const dataset& data_;
  const exact_truth& truth_;
  std::vector<std::unique_ptr<adapter>> indexes_;
  std::vector<std::uint32_t> answers_;
  std::vector<double> latencies_;
  std::vector<peer_result> results_;
};

}  // namespace

std::vector<peer_result> measure(const plan& plan, const dataset& data, const exact_truth& truth) {
  if (plan.peers.empty() || plan.build_threads.empty() || plan.efforts.empty() ||
      plan.search_threads.empty() || plan.build_rounds < 1 || plan.search_rounds < 1)
    throw std::invalid_argument("nothing to measure");
  return comparison(plan, data, truth).run();
}

}  // namespace korvex::compare
