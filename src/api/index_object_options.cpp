#include "api/border.h"
#include "api/index_object.h"
#include "engine/configuration.h"
#include "runtime/disk_probe.h"
#include "runtime/log.h"

// The options of KorvexImpl.
namespace korvex {

namespace {

constexpr unsigned default_probe_block = 4'096;
constexpr unsigned default_probe_file = 104'857'600;
// Operations a second under which a drive slows an index down.
constexpr double slow_reads = 50'000;
constexpr double slow_writes = 100'000;

int refuse_option(const char* operation) {
  log_refusal(operation, "the value must be 1 or more");
  return -1;
}

}  // namespace

void KorvexImpl::setAllocationUnits(unsigned vectors) {
  korvex_set_alloc_units(base_, vectors, 0);
}

void KorvexImpl::enableDiskCache(unsigned long long bytes) {
  korvex_set_max_ram_usage(base_, bytes);
}

void KorvexImpl::testDiskPerformance(const char* path, unsigned block_bytes, unsigned file_bytes,
                                     int seconds, int force) {
  if (path == nullptr) return log_refusal("testDiskPerformance", "a null path");
  at_border("testDiskPerformance", [&] {
    disk_iops_s iops{-1, -1};
    const int code = disk_perf_test(path, block_bytes == 0 ? default_probe_block : block_bytes,
                                    file_bytes == 0 ? default_probe_file : file_bytes,
                                    seconds < 0 ? 0 : static_cast<unsigned>(seconds), force, &iops);
    if (code >= 0)
      KORVEX_LOG("Disk IOPS%s: read %.6lf write %.6lf\n", code != 0 ? " (cached)" : "", iops.read,
                 iops.write);
    if (iops.read < slow_reads || iops.write < slow_writes) disk_perf_warning();
  });
}

void KorvexImpl::enableHugePages(int enable) {
  korvex_enable_huges_pages(base_, enable);
}

void KorvexImpl::setNUMANode(int node) {
  korvex_set_numa_node(base_, node);
}

void KorvexImpl::setQuantization(int) {}

void KorvexImpl::setQuantizationThreshold(float) {}

void KorvexImpl::setPatternProbes(int probes) {
  if (probes <= 0) return static_cast<void>(refuse_option("setPatternProbes"));
  korvex_set_partitions(base_, probes);
}

int KorvexImpl::setConstellationSize(int size) {
  if (size <= 0) return refuse_option("setConstellationSize");
  korvex_set_neighbors_count(base_, size);
  return 0;
}

int KorvexImpl::setRadius(int radius, int) {
  if (radius <= 0) return refuse_option("setRadius");
  korvex_set_radius(base_, radius);
  return 0;
}

void KorvexImpl::setThreads(int threads) {
  if (threads < 0) return log_refusal("setThreads", "the value must not be negative");
  korvex_set_threads(base_, threads);
}

void KorvexImpl::setQueryThreads(int threads, int queue_limit) {
  korvex_set_search_threads(base_, threads, queue_limit);
}

void KorvexImpl::setIndexOptimization(int) {}

void KorvexImpl::setSearchOptimization(int) {}

void KorvexImpl::setDistanceType(DistanceType type) {
  if (type != DISTANCE_L2_SQUARE && type != DISTANCE_L2 && type != DISTANCE_INNER_PRODUCT)
    return log_refusal("setDistanceType", "an unknown distance");
  at_border("setDistanceType", [&] { korvex_set_distance_type(base_, type); });
}

void KorvexImpl::setMipsMode() {
  korvex_set_mips_mode(base_);
}

void KorvexImpl::setNormalize(int enable) {
  korvex_set_normalize(base_, enable);
}

void KorvexImpl::enableDuplicateDetection(int enable) {
  at_border("enableDuplicateDetection", [&] { korvex_enable_index_check(base_, enable); });
}

void KorvexImpl::setDuplicateThreshold(int mode, float threshold, int option) {
  korvex_set_duplicate_threshold(base_, mode, threshold, option);
}

void KorvexImpl::destroyIndexOnDelete(int enable) {
  korvex_destroy_disk_index(base_, enable);
}

}  // namespace korvex
