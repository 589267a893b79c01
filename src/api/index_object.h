#ifndef KORVEX_API_INDEX_OBJECT_H
#define KORVEX_API_INDEX_OBJECT_H

#include <atomic>
#include <cstdint>
#include <memory>

#include "api/instance_registry.h"
#include "engine/record.h"
#include "korvex/korvex.h"

namespace korvex {

// The index behind Korvex: a shell that checks arguments and forwards to the engine.
// Threads     as the engine functions behind the operations; switches and listener are atomic.
// Ownership   owns the engine's record; not the listener, not the sessions that it makes.
class KorvexImpl final : public Korvex {
 public:
  // A new or reopened index, or null after the engine's line. A null or empty path: in memory. An
  // index that the engine refused has used up an instance id all the same.
  // Failure   throws what korvex_init throws
  static std::unique_ptr<KorvexImpl> create(int dimension, const char* path, const char* name);

  // The index of an instance id, or null. An index whose registration was kept is found even after
  // it was destroyed: whoever asks must know that it lives.
  static KorvexImpl* get_from_instance_id(std::uint32_t id) { return s_instance_manager.find(id); }
  std::uint32_t get_instance_id() const { return instance_id_; }
  KorvexIndexListener* getIndexListener() const { return index_listener_.load(); }

  ~KorvexImpl() override;
  unsigned getId() override;
  void destroy() override;
  hnsw_s* get_base(int unused) override;
  void this_is_preproduction_software(int enable_adding) override;
  void validateParameters(int value) override;
  void setIndexListener(KorvexIndexListener* listener, unsigned threshold) override;
  void syncToDisk(unsigned min_interval) override;

  void setAllocationUnits(unsigned vectors) override;
  void enableDiskCache(unsigned long long bytes) override;
  void testDiskPerformance(const char* path, unsigned block_bytes, unsigned file_bytes, int seconds,
                           int force) override;
  void enableHugePages(int enable) override;
  void setNUMANode(int node) override;
  void setQuantization(int unused) override;
  void setQuantizationThreshold(float unused) override;
  void setPatternProbes(int probes) override;
  int setConstellationSize(int size) override;
  int setRadius(int radius, int unused) override;
  void setThreads(int threads) override;
  void setQueryThreads(int threads, int queue_limit) override;
  void setIndexOptimization(int unused) override;
  void setSearchOptimization(int unused) override;
  void setDistanceType(DistanceType type) override;
  void setMipsMode() override;
  void setNormalize(int enable) override;
  void enableDuplicateDetection(int enable) override;
  int isIndexed(const float* vector) override;
  int isDuplicate(const float* vector, float threshold) override;
  void setDuplicateThreshold(int mode, float threshold, int option) override;

  unsigned addVector(const float* vector, int unused, unsigned long long label) override;
  unsigned long long addVectors(const float* vectors, int count, int unused) override;
  void deleteVector(unsigned id, int undelete) override;
  void deleteVectors(unsigned* ids, int count, int undelete) override;
  void waitForIndexReady() override;
  int isIndexReady() override;
  void destroyIndexOnDelete(int enable) override;

  KorvexQuery* createQuerySession(int radius, int k) override;
  KorvexBulkQuery* createBulkQuerySession(int radius) override;
  KorvexQuery* getQuerySession(unsigned session_id) override;
  float distance(const float* a, const float* b) override;
  float distance(unsigned id, const float* vector) override;
  void normalize(float* vector, int dimension) override;

 private:
  KorvexImpl() = default;

  static instance_registry s_instance_manager;

  hnsw_s* base_ = nullptr;
  std::atomic<std::uint32_t> add_enabled_{1};
  std::atomic<std::uint32_t> keep_registration_{1};
  std::atomic<KorvexIndexListener*> index_listener_{nullptr};
  std::uint32_t instance_id_ = 0;
};

// The engine's ready notice, with the index object as its context.
int korvex_index_ready_callback(void* context, std::uint32_t indexed, std::uint32_t added);

}  // namespace korvex

#endif  // KORVEX_API_INDEX_OBJECT_H
