#ifndef KORVEX_KORVEX_H
#define KORVEX_KORVEX_H

#include <stdint.h>

#include "korvex/results.h"

// The binary contract of Korvex: what a host compiles against. The classes are tables of functions
// in a fixed order; an operation never moves, disappears or changes its arguments. Labels, search
// on the calling thread and the result cache are reached through korvex/engine.h.
//
// Ids        a vector's id is its position in the order of additions, from 0.
// Distances  raw values of the chosen metric: squared or plain Euclidean distance, or the dot
//            product (larger is nearer).
// Failures   nothing is thrown; each call names its failure value, and each refusal prints one line
//            to the log (standard output, unless told otherwise). What a host's listener throws is
//            caught, logged and dropped.
// Threads    every operation of an index may be called from any thread. Configuration belongs
//            before the first addition or session. A session runs one query at a time.

// Set by the build of a library whose format marks what it exports in another way; hosts leave it alone.
#if !defined(KORVEX_API)
#if defined(__ELF__)
#define KORVEX_API __attribute__((visibility("default")))
#else
#define KORVEX_API
#endif
#endif

struct hnsw_s;

class Korvex;
class KorvexQuery;
class KorvexBulkQuery;

// Implemented by the host. Called on a thread of the engine; may call any operation of the index
// and of its sessions.
class KorvexIndexListener {
 public:
  virtual ~KorvexIndexListener() = default;
  // The indexed count reached the threshold, or all vectors added so far are indexed. Called once a
  // setIndexListener.
  virtual void onIndexReady(Korvex* index, unsigned indexed, unsigned added) = 0;
};

// Implemented by the host. Called on search threads, onFilter from several at once; no lock is
// held.
class KorvexQueryListener {
 public:
  virtual ~KorvexQueryListener() = default;
  // Non-zero excludes the vector `id` from the results.
  virtual int onFilter(KorvexQuery* query, unsigned id) = 0;
  // The results of the query are ready. May start the next query, read results, or destroy the
  // session.
  virtual int onResults(KorvexQuery* query) = 0;
};

class KorvexBulkQueryListener {
 public:
  virtual ~KorvexBulkQueryListener() = default;
  // All queries of the batch are answered.
  virtual int onResults(KorvexBulkQuery* query) = 0;
};

// An index. Made by KorvexInstance or KorvexOnDiskInstance, given up with destroy().
class Korvex {
 public:
  enum DistanceType : int {
    DISTANCE_NONE = 0,
    DISTANCE_L2_SQUARE = 1,
    DISTANCE_L2 = 2,
    DISTANCE_INNER_PRODUCT = 4,
  };

  virtual ~Korvex() = default;
  virtual unsigned getId() = 0;
  // Stops the index and releases it, within 110 ms. No other call of the index may be under way but
  // those of its sessions; sessions that are left over answer with failure values from then on and
  // still want their own destroy(). May be called from a listener.
  virtual void destroy() = 0;
  // The engine's record of this index, for the functions of korvex/engine.h.
  virtual hnsw_s* get_base(int unused) = 0;
  // 0 makes addVectors add nothing until it is set again; addVector goes on.
  virtual void this_is_preproduction_software(int enable_adding) = 0;
  // Non-zero (the default): vectors that are not finite are refused and searches look at 2 x k
  // candidates at least.
  virtual void validateParameters(int value) = 0;
  // One notice when all vectors added so far, or at least `threshold` of them, are indexed; now if
  // it is already due. Set it after adding, or use waitForIndexReady: an index that is filled
  // slowly is complete after each vector.
  virtual void setIndexListener(KorvexIndexListener* listener, unsigned threshold) = 0;
  // Puts an on-disk index on its device; 0 always, otherwise at most every `min_interval` seconds.
  virtual void syncToDisk(unsigned min_interval) = 0;

  // Configuration: takes effect until the first addition or the first session.

  // Vectors a storage block, default 1,000,000.
  virtual void setAllocationUnits(unsigned vectors) = 0;
  // Below 100: per cent of the memory. On disk only.
  virtual void enableDiskCache(unsigned long long bytes) = 0;
  // Measures the drive under `path` with random reads and writes of blocks (0 bytes: 4,096) in a file
  // (0 bytes: 100 MiB), or reads the figures of the last time unless `force` is non-zero; logs them,
  // and advice when they are low. Blocks for about twice `seconds` (below 1: 10; at most 1000).
  virtual void testDiskPerformance(const char* path, unsigned block_bytes, unsigned file_bytes,
                                   int seconds, int force) = 0;
  virtual void enableHugePages(int enable) = 0;             // default 0
  virtual void setNUMANode(int node) = 0;                   // default -1: none
  virtual void setQuantization(int unused) = 0;             // does nothing
  virtual void setQuantizationThreshold(float unused) = 0;  // does nothing
  // 1..16, default 2, more count as 16; each probe is walked on its own.
  virtual void setPatternProbes(int probes) = 0;
  // Default 16: up to 32 neighbours. 0, or -1 for a size below 1.
  virtual int setConstellationSize(int size) = 0;
  // Candidates looked at while building, default 100.
  virtual int setRadius(int radius, int unused) = 0;
  virtual void setThreads(int threads) = 0;  // indexing threads; 0 links inside addVector
  // Search threads; queued queries before query() waits.
  virtual void setQueryThreads(int threads, int queue_limit) = 0;
  virtual void setIndexOptimization(int unused) = 0;   // does nothing
  virtual void setSearchOptimization(int unused) = 0;  // does nothing
  // Default squared Euclidean; an unknown type changes nothing.
  virtual void setDistanceType(DistanceType type) = 0;
  virtual void setMipsMode() = 0;             // does nothing: choose the inner product
  virtual void setNormalize(int enable) = 0;  // default 0; 1: unit copies are stored and searched
  virtual void enableDuplicateDetection(int enable) = 0;  // keeps a filter of indexed vectors
  virtual int isIndexed(const float* vector) = 0;         // always 0
  virtual int isDuplicate(const float* vector, float threshold) = 0;  // always 0
  // While mode and option are non-zero, a vector within `threshold` of one that is already there is
  // not linked.
  virtual void setDuplicateThreshold(int mode, float threshold, int option) = 0;

  // The id of the vector, or 0 on failure (0 is also the first id). The label is kept when labels
  // are enabled (korvex_enable_label in korvex/engine.h, before the first addition or session).
  virtual unsigned addVector(const float* vector, int unused, unsigned long long label) = 0;
  // `count` vectors row after row; the first id in the low and the last in the high 32 bits.
  virtual unsigned long long addVectors(const float* vectors, int count, int unused) = 0;
  // Hides a vector from all results (flag 0) or shows it again.
  virtual void deleteVector(unsigned id, int undelete) = 0;
  virtual void deleteVectors(unsigned* ids, int count, int undelete) = 0;
  virtual void waitForIndexReady() = 0;
  virtual int isIndexReady() = 0;
  // On disk only: the index's files go when the index does, and with them every other *.korvex file
  // of its directory that belongs to no other index there.
  virtual void destroyIndexOnDelete(int enable) = 0;

  // A session for one query at a time. `radius`: how many candidates a query looks at, at least.
  // Null only when memory is short; when the index cannot be started every operation of the session
  // answers with its failure value.
  virtual KorvexQuery* createQuerySession(int radius, int k) = 0;
  virtual KorvexBulkQuery* createBulkQuerySession(int radius) = 0;
  // The object of a session id, or null.
  virtual KorvexQuery* getQuerySession(unsigned session_id) = 0;
  // In the chosen metric; the value that is farthest in it (3.4e38, or -3.4e38 for the inner
  // product) when a vector is missing.
  virtual float distance(const float* a, const float* b) = 0;
  virtual float distance(unsigned id, const float* vector) = 0;
  virtual void normalize(float* vector, int dimension) = 0;
};

// One query at a time. Results stay until the next query of the session.
class KorvexQuery {
 public:
  virtual ~KorvexQuery() = default;
  virtual void destroy() = 0;
  virtual Korvex* getParent() = 0;  // null once the index is gone
  virtual unsigned get_objid() = 0;
  virtual unsigned getSessionId() = 0;
  // `filter` non-zero asks onFilter for every candidate; such queries bypass the result cache.
  virtual void setListener(KorvexQueryListener* listener, int filter) = 0;
  virtual void setUserData(void* data) = 0;
  virtual void* getUserData() = 0;
  virtual int setRadius(int radius) = 0;  // 0, or -1 for a negative radius
  // Starts a search and returns; 0, or 0xFFFFFFFF when it could not start (the session is busy,
  // nothing was added). A cache of recent answers serves near repeats. It compares components as
  // whole numbers: scale vectors whose components lie within (-1, 1), by 10,000 say, which keeps
  // the order of results, or switch the cache to exact keys (korvex_set_result_cache in
  // korvex/engine.h).
  virtual unsigned query(const float* vector, int unused, int k) = 0;
  virtual unsigned more() = 0;               // continues: the next k results
  virtual unsigned refine() = 0;             // searches again from what was found
  virtual unsigned filter(unsigned id) = 0;  // this session never returns the id again
  // These wait for the running query. Null without a session.
  virtual korvex_results_s* getResults(int copy) = 0;
  virtual korvex_result_ids_s* getResultIds(int copy) = 0;
  virtual korvex_result_dists_s* getResultDists(int copy) = 0;
};

// Many queries in one call.
class KorvexBulkQuery {
 public:
  virtual ~KorvexBulkQuery() = default;
  virtual void destroy() = 0;
  virtual unsigned get_objid() = 0;
  virtual void setListener(KorvexBulkQueryListener* listener) = 0;
  virtual void setUserData(void* data) = 0;
  virtual void* getUserData() = 0;
  virtual int setRadius(int radius) = 0;
  // n queries row after row; they are copied. With a listener it returns at once and the listener
  // is called when all are answered; without one it returns when most are. A query that could not
  // be answered has a row of zeros. k below 1 means 10. 0, or 0xFFFFFFFF. Waits for the batch
  // before.
  virtual unsigned query(const float* vectors, int n, int unused, int k) = 0;
  virtual korvex_bulk_results_s* getResultIds(int unused) = 0;  // waits for the whole batch
  virtual void printResults() = 0;
};

// Process-wide helpers. Never destroyed.
class KorvexUtils {
 public:
  virtual void printMemoryUsage(const char* label, int unused) = 0;
  // Deletes the files of a directory that end in "." + extension: their number, or -1.
  virtual int deleteFiles(const char* directory, int unused, const char* extension, int flags) = 0;
  virtual unsigned getRandom32() = 0;
  virtual unsigned getRandom32Max(unsigned max) = 0;  // 0 to max, both included
  virtual unsigned long long getRandom64() = 0;
  virtual double getRandom() = 0;  // in [0, 1)

 protected:
  ~KorvexUtils() = default;
};

extern "C" {
KORVEX_API int KorvexInterfaceVersion(void);  // 1

// An index in memory, or null. 1 <= dimension <= 1,048,576.
KORVEX_API Korvex* KorvexInstance(int dimension);
// An index in files below `path` (null: the user's data folder; empty: in memory), made or opened
// again. Null when the path, the files or the dimension do not fit, or when the index is open
// elsewhere.
KORVEX_API Korvex* KorvexOnDiskInstance(int dimension, const char* path, const char* name);
KORVEX_API KorvexUtils* KorvexUtilsInstance(void);

// The same under the names of the factories.
KORVEX_API Korvex* createKorvexInstance(int dimension);
KORVEX_API Korvex* createKorvexOnDiskInstance(int dimension, const char* path, const char* name);
KORVEX_API KorvexUtils* createKorvexUtilsInstance(void);
KORVEX_API int korvex_info(void);  // prints what this is to standard output
}

#endif  // KORVEX_KORVEX_H
