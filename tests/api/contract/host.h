#ifndef KORVEX_TESTS_API_CONTRACT_HOST_H
#define KORVEX_TESTS_API_CONTRACT_HOST_H

#include <cstdint>

// The library's classes as a host knows them that has only the order of their operations. Includes
// nothing of the project.

using u32 = std::uint32_t;
using u64 = unsigned long long;
class Korvex;
class KorvexQuery;
class KorvexBulkQuery;
struct hnsw_s;

struct results_t {
  u32 count, owned;
  u32* ids;
  float* distances;
};
struct ids_t {
  u32 count, valid, owned;
  u32* ids;
};
struct distances_t {
  u32 count, owned;
  float* distances;
};
struct bulk_results_t {
  u32 k, query_count, valid;
  u32* ids;
};

class KorvexIndexListener {
 public:
  virtual ~KorvexIndexListener() = default;
  virtual void onIndexReady(Korvex*, u32, u32) = 0;
};
class KorvexQueryListener {
 public:
  virtual ~KorvexQueryListener() = default;
  virtual int onFilter(KorvexQuery*, u32) = 0;
  virtual int onResults(KorvexQuery*) = 0;
};
class KorvexBulkQueryListener {
 public:
  virtual ~KorvexBulkQueryListener() = default;
  virtual int onResults(KorvexBulkQuery*) = 0;
};

// clang-format off
class Korvex {
 public:
  virtual ~Korvex() = default;                                               // slots 0, 1
  virtual u32 getId() = 0;                                                   // 2
  virtual void destroy() = 0;                                                // 3
  virtual hnsw_s* get_base(int) = 0;                                         // 4
  virtual void this_is_preproduction_software(int) = 0;                      // 5
  virtual void validateParameters(int) = 0;                                  // 6
  virtual void setIndexListener(KorvexIndexListener*, u32) = 0;              // 7
  virtual void syncToDisk(u32) = 0;                                          // 8
  virtual void setAllocationUnits(u32) = 0;                                  // 9
  virtual void enableDiskCache(u64) = 0;                                     // 10
  virtual void testDiskPerformance(const char*, u32, u32, int, int) = 0;     // 11
  virtual void enableHugePages(int) = 0;                                     // 12
  virtual void setNUMANode(int) = 0;                                         // 13
  virtual void setQuantization(int) = 0;                                     // 14
  virtual void setQuantizationThreshold(float) = 0;                          // 15
  virtual void setPatternProbes(int) = 0;                                    // 16
  virtual int setConstellationSize(int) = 0;                                 // 17
  virtual int setRadius(int, int) = 0;                                       // 18
  virtual void setThreads(int) = 0;                                          // 19
  virtual void setQueryThreads(int, int) = 0;                                // 20
  virtual void setIndexOptimization(int) = 0;                                // 21
  virtual void setSearchOptimization(int) = 0;                               // 22
  virtual void setDistanceType(int) = 0;                                     // 23
  virtual void setMipsMode() = 0;                                            // 24
  virtual void setNormalize(int) = 0;                                        // 25
  virtual void enableDuplicateDetection(int) = 0;                            // 26
  virtual int isIndexed(const float*) = 0;                                   // 27
  virtual int isDuplicate(const float*, float) = 0;                          // 28
  virtual void setDuplicateThreshold(int, float, int) = 0;                   // 29
  virtual u32 addVector(const float*, int, u64) = 0;                         // 30
  virtual u64 addVectors(const float*, int, int) = 0;                        // 31
  virtual void deleteVector(u32, int) = 0;                                   // 32
  virtual void deleteVectors(u32*, int, int) = 0;                            // 33
  virtual void waitForIndexReady() = 0;                                      // 34
  virtual int isIndexReady() = 0;                                            // 35
  virtual void destroyIndexOnDelete(int) = 0;                                // 36
  virtual KorvexQuery* createQuerySession(int, int) = 0;                     // 37
  virtual KorvexBulkQuery* createBulkQuerySession(int) = 0;                  // 38
  virtual KorvexQuery* getQuerySession(u32) = 0;                             // 39
  virtual float distance(const float*, const float*) = 0;                    // 40
  virtual float distance(u32, const float*) = 0;                             // 41
  virtual void normalize(float*, int) = 0;                                   // 42
};
class KorvexQuery {
 public:
  virtual ~KorvexQuery() = default;                                          // 0, 1
  virtual void destroy() = 0;                                                // 2
  virtual Korvex* getParent() = 0;                                           // 3
  virtual u32 get_objid() = 0;                                               // 4
  virtual u32 getSessionId() = 0;                                            // 5
  virtual void setListener(KorvexQueryListener*, int) = 0;                   // 6
  virtual void setUserData(void*) = 0;                                       // 7
  virtual void* getUserData() = 0;                                           // 8
  virtual int setRadius(int) = 0;                                            // 9
  virtual u32 query(const float*, int, int) = 0;                             // 10
  virtual u32 more() = 0;                                                    // 11
  virtual u32 refine() = 0;                                                  // 12
  virtual u32 filter(u32) = 0;                                               // 13
  virtual results_t* getResults(int) = 0;                                    // 14
  virtual ids_t* getResultIds(int) = 0;                                      // 15
  virtual distances_t* getResultDists(int) = 0;                              // 16
};
class KorvexBulkQuery {
 public:
  virtual ~KorvexBulkQuery() = default;                                      // 0, 1
  virtual void destroy() = 0;                                                // 2
  virtual u32 get_objid() = 0;                                               // 3
  virtual void setListener(KorvexBulkQueryListener*) = 0;                    // 4
  virtual void setUserData(void*) = 0;                                       // 5
  virtual void* getUserData() = 0;                                           // 6
  virtual int setRadius(int) = 0;                                            // 7
  virtual u32 query(const float*, int, int, int) = 0;                        // 8
  virtual bulk_results_t* getResultIds(int) = 0;                             // 9
  virtual void printResults() = 0;                                           // 10
};
class KorvexUtils {
 public:
  virtual void printMemoryUsage(const char*, int) = 0;                       // 0
  virtual int deleteFiles(const char*, int, const char*, int) = 0;           // 1
  virtual u32 getRandom32() = 0;                                             // 2
  virtual u32 getRandom32Max(u32) = 0;                                       // 3
  virtual u64 getRandom64() = 0;                                             // 4
  virtual double getRandom() = 0;                                            // 5

 protected:
  ~KorvexUtils() = default;
};
// clang-format on

#endif  // KORVEX_TESTS_API_CONTRACT_HOST_H
