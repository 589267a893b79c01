#include "index.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <stdexcept>

#include "engine/configuration.h"

namespace korvex::on_disk {

namespace {

double processor_seconds_now() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

constexpr int queue_limit = 1'000'000;
constexpr const char* index_name = "bench";

}  // namespace

double seconds_now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string files_of(const index_settings& settings) {
  return settings.base + "/nimbra-korvex/0";
}

bool answer_lists::same_row(const answer_lists& other, std::size_t query, unsigned k) const {
  const auto from = static_cast<std::ptrdiff_t>(query * k);
  const auto to = static_cast<std::ptrdiff_t>(query * k + k);
  return std::equal(ids.begin() + from, ids.begin() + to, other.ids.begin() + from) &&
         std::equal(distances.begin() + from, distances.begin() + to,
                    other.distances.begin() + from);
}

host_index::host_index(const index_settings& settings)
    : settings_(settings),
      index_(settings.base.empty() ? KorvexInstance(static_cast<int>(settings.dimension))
                                   : KorvexOnDiskInstance(static_cast<int>(settings.dimension),
                                                          settings.base.c_str(), index_name)) {
  if (!index_) throw std::runtime_error("no index could be opened");
  index_->setDistanceType(Korvex::DISTANCE_L2_SQUARE);
  index_->setPatternProbes(1);
  index_->setConstellationSize(settings.links);
  index_->setRadius(settings.construction_effort, 0);
  index_->setThreads(settings.threads);
  index_->setQueryThreads(1, queue_limit);
  if (settings.disk_cache != 0) index_->enableDiskCache(settings.disk_cache);
  korvex_set_result_cache(index_->get_base(0), 0);
}

void host_index::add(const matrix& vectors, std::size_t first, std::size_t last) {
  for (std::size_t row = first; row < last; ++row)
    if (index_->addVector(vectors.row(row), 0, 0) != row)
      throw std::runtime_error("an addition failed");
  index_->waitForIndexReady();
}

answer_lists host_index::ask(const matrix& queries, std::size_t n) {
  if (!query_)
    query_.reset(index_->createQuerySession(static_cast<int>(settings_.effort),
                                            static_cast<int>(settings_.k)));
  answer_lists all;
  for (std::size_t i = 0; query_ && i < n; ++i) {
    query_->query(queries.row(i), 0, static_cast<int>(settings_.k));
    const korvex_results_s* const results = query_->getResults(0);
    if (results == nullptr || results->count != settings_.k)
      throw std::runtime_error("a query found too little");
    all.ids.insert(all.ids.end(), results->ids, results->ids + settings_.k);
    all.distances.insert(all.distances.end(), results->distances, results->distances + settings_.k);
  }
  return all;
}

taken host_index::ask_in_bulk(const matrix& queries, std::vector<std::uint32_t>* ids) {
  if (!bulk_) bulk_.reset(index_->createBulkQuerySession(static_cast<int>(settings_.effort)));
  const double begin = seconds_now();
  const double processor_begin = processor_seconds_now();
  if (bulk_->query(queries.values.data(), static_cast<int>(queries.rows), 0,
                   static_cast<int>(settings_.k)) != 0)
    throw std::runtime_error("a bulk query failed");
  const korvex_bulk_results_s* const results = bulk_->getResultIds(0);
  const taken time{seconds_now() - begin, processor_seconds_now() - processor_begin};
  if (results == nullptr || results->valid == 0) throw std::runtime_error("no results");
  ids->assign(results->ids, results->ids + queries.rows * settings_.k);
  return time;
}

}  // namespace korvex::on_disk
