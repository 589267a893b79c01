// The library as a host sees it: loaded by path, its classes known only by the order of their
// operations. Includes nothing of the project.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using u32 = std::uint32_t;
using u64 = unsigned long long;
class Korvex;
class KorvexQuery;
class KorvexBulkQuery;

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
  virtual void* get_base(int) = 0;                                           // 4
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

namespace {

constexpr u32 failed = 0xFFFFFFFF;
constexpr int dimension = 8;
constexpr float not_a_number = std::numeric_limits<float>::quiet_NaN();

struct library {
  library() {
    testing::internal::CaptureStdout();
    handle = dlopen(KORVEX_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    const char* const error = handle == nullptr ? dlerror() : nullptr;
    greeting = testing::internal::GetCapturedStdout();
    if (error != nullptr) throw std::runtime_error(error);
    load("KorvexInterfaceVersion", version);
    load("KorvexInstance", instance);
    load("KorvexOnDiskInstance", on_disk);
    load("KorvexUtilsInstance", utils);
    load("createKorvexInstance", create);
    load("createKorvexOnDiskInstance", create_on_disk);
    load("createKorvexUtilsInstance", create_utils);
    load("korvex_info", info);
  }
  template <class T>
  void load(const char* name, T& function) {
    function = reinterpret_cast<T>(dlsym(handle, name));
    if (function == nullptr) throw std::runtime_error(name);
  }

  void* handle;
  std::string greeting;
  int (*version)();
  Korvex* (*instance)(int), *(*create)(int);
  Korvex* (*on_disk)(int, const char*, const char*),
      *(*create_on_disk)(int, const char*, const char*);
  KorvexUtils* (*utils)(), *(*create_utils)();
  int (*info)();
};

const library& lib() {
  static const library only;
  return only;
}

struct give_up {
  template <class T>
  void operator()(T* object) const {
    object->destroy();
  }
};
using index_ptr = std::unique_ptr<Korvex, give_up>;
using query_ptr = std::unique_ptr<KorvexQuery, give_up>;
using bulk_ptr = std::unique_ptr<KorvexBulkQuery, give_up>;

std::vector<float> random_vectors(int n, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> component(-1000, 1000);
  std::vector<float> rows(static_cast<std::size_t>(n) * dimension);
  for (float& value : rows) value = component(random);
  return rows;
}

const float* row(const std::vector<float>& rows, u32 i) {
  return rows.data() + std::size_t{i} * dimension;
}

index_ptr filled_index(const std::vector<float>& rows) {
  index_ptr index(lib().instance(dimension));
  index->addVectors(rows.data(), static_cast<int>(rows.size() / dimension), 0);
  index->waitForIndexReady();
  return index;
}

std::vector<u32> ids_of(KorvexQuery* query) {
  const results_t* const results = query->getResults(0);
  return {results->ids, results->ids + results->count};
}

std::vector<u32> nearest(const std::vector<float>& rows, const float* v, std::size_t k) {
  std::vector<std::pair<float, u32>> order;
  for (u32 i = 0; i < rows.size() / dimension; ++i) {
    float sum = 0;
    for (int d = 0; d < dimension; ++d) sum += (row(rows, i)[d] - v[d]) * (row(rows, i)[d] - v[d]);
    order.emplace_back(sum, i);
  }
  std::sort(order.begin(), order.end());
  std::vector<u32> ids;
  for (std::size_t i = 0; i < k; ++i) ids.push_back(order[i].second);
  return ids;
}

// Counts calls and lets a test wait for them. The state outlives the listener: a callback that was
// counted may still be on its way out.
class counter {
 public:
  void add() {
    const auto state = state_;
    std::lock_guard lock(state->mutex);
    ++state->count;
    state->changed.notify_all();
  }
  bool reaches(int n) {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, std::chrono::seconds(20),
                                    [&] { return state_->count >= n; });
  }
  int count() {
    std::lock_guard lock(state_->mutex);
    return state_->count;
  }

 private:
  struct counted {
    std::mutex mutex;
    std::condition_variable changed;
    int count = 0;
  };
  const std::shared_ptr<counted> state_ = std::make_shared<counted>();
};

struct query_listener : KorvexQueryListener {
  int onFilter(KorvexQuery* query, u32 id) override { return filter ? filter(query, id) : 0; }
  int onResults(KorvexQuery* query) override {
    if (results) results(query);
    calls.add();
    return 0;
  }
  std::function<int(KorvexQuery*, u32)> filter;
  std::function<void(KorvexQuery*)> results;
  counter calls;
};

struct bulk_listener : KorvexBulkQueryListener {
  int onResults(KorvexBulkQuery* query) override {
    if (results) results(query);
    calls.add();
    return 0;
  }
  std::function<void(KorvexBulkQuery*)> results;
  counter calls;
};

struct index_listener : KorvexIndexListener {
  void onIndexReady(Korvex* index, u32 indexed_count, u32 added_count) override {
    indexed = indexed_count;
    added = added_count;
    if (ready) ready(index);
    calls.add();
  }
  std::function<void(Korvex*)> ready;
  std::atomic<u32> indexed{0}, added{0};
  counter calls;
};

class temporary_directory {
 public:
  temporary_directory() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "korvex-contract-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~temporary_directory() { std::filesystem::remove_all(path_); }
  const char* c_str() const { return path_.c_str(); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// What the body makes the library write. A printed batch drains the log before and after.
std::string log_of(KorvexBulkQuery* drain, const std::function<void()>& body) {
  drain->printResults();
  testing::internal::CaptureStdout();
  body();
  drain->printResults();
  return testing::internal::GetCapturedStdout();
}

std::size_t count_of(const std::string& text, const std::string& part) {
  std::size_t n = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

TEST(Contract, LoadingAndInfoPrintTwoLines) {
  const std::string& greeting = lib().greeting;
  EXPECT_EQ(count_of(greeting, "\n"), 2u);
  testing::internal::CaptureStdout();
  const int last = lib().info();
  const std::string info = testing::internal::GetCapturedStdout();
  EXPECT_EQ(count_of(info, "\n"), 2u);
  const std::size_t first = info.find('\n') + 1;
  EXPECT_EQ(info.substr(0, first), greeting.substr(0, first));
  EXPECT_EQ(static_cast<std::size_t>(last), info.size() - first);
  EXPECT_EQ(lib().version(), 1);
}

TEST(Contract, IdsGrowAndComeBackOnlyOnRequest) {
  index_ptr a(lib().instance(3)), b(lib().create(3));
  EXPECT_EQ(b->getId(), a->getId() + 1);
  const u32 kept = b->getId();
  b.reset();
  for (const int refused : {0, -1, (1 << 20) + 1})
    EXPECT_EQ(lib().instance(refused), nullptr) << refused;
  index_ptr c(lib().on_disk(1, "", nullptr));
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->getId(), kept + 4) << "each refused creation uses up an id";
  c->validateParameters(0);
  const u32 freed = c->getId();
  c.reset();
  EXPECT_EQ(index_ptr(lib().instance(3))->getId(), freed);
}

TEST(Contract, FilesLieWhereTheHostSays) {
  const temporary_directory home, base;
  const char* const old = std::getenv("XDG_DATA_HOME");
  const std::string before = old != nullptr ? old : "";
  setenv("XDG_DATA_HOME", home.c_str(), 1);
  {
    index_ptr index(lib().on_disk(dimension, nullptr, nullptr));
    ASSERT_NE(index, nullptr);
    EXPECT_TRUE(std::filesystem::exists(home.path() / "nimbra-korvex/0/nimbra-korvex.korvex"));
  }
  old != nullptr ? setenv("XDG_DATA_HOME", before.c_str(), 1) : unsetenv("XDG_DATA_HOME");

  EXPECT_EQ(lib().on_disk(dimension, "/proc/no such place", "a"), nullptr);
  EXPECT_EQ(lib().on_disk(dimension, base.c_str(), "a/b"), nullptr);
  index_ptr index(lib().create_on_disk(dimension, base.c_str(), "pictures"));
  ASSERT_NE(index, nullptr);
  const std::filesystem::path directory = base.path() / "nimbra-korvex/0";
  EXPECT_TRUE(std::filesystem::exists(directory / "pictures.korvex"));
  const auto rows = random_vectors(50, 1);
  index->addVectors(rows.data(), 50, 0);
  index->waitForIndexReady();
  index->syncToDisk(0);
  index->enableDiskCache(1 << 20);
  query_ptr query(index->createQuerySession(50, 1));
  ASSERT_EQ(query->query(row(rows, 17), 0, 1), 0u);
  EXPECT_EQ(ids_of(query.get()), std::vector<u32>{17});
  index->destroyIndexOnDelete(1);
  query.reset();
  index.reset();
  EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST(Contract, OptionsAnswerAndNeverStopTheIndex) {
  index_ptr index(lib().instance(dimension));
  for (const int bad : {0, -1, std::numeric_limits<int>::min()}) {
    EXPECT_EQ(index->setConstellationSize(bad), -1);
    EXPECT_EQ(index->setRadius(bad, 9), -1);
    index->setPatternProbes(bad);
    index->setDistanceType(bad == 0 ? 3 : bad);
  }
  EXPECT_EQ(index->setConstellationSize(8), 0);
  EXPECT_EQ(index->setRadius(50, -7), 0);
  index->setAllocationUnits(100);
  index->enableDiskCache(1000);
  index->enableHugePages(0);
  index->setNUMANode(-1);
  index->setQuantization(8);
  index->setQuantizationThreshold(0.5f);
  index->setPatternProbes(3);
  index->setThreads(-1);
  index->setThreads(2);
  index->setQueryThreads(1, -1);
  index->setIndexOptimization(1);
  index->setSearchOptimization(1);
  index->setDistanceType(1);
  index->setMipsMode();
  index->setNormalize(0);
  index->enableDuplicateDetection(1);
  index->setDuplicateThreshold(0, 0, 0);
  index->testDiskPerformance(nullptr, 0, 0, 1, 0);
  index->syncToDisk(0);
  EXPECT_NE(index->get_base(0), nullptr);
  EXPECT_EQ(index->isIndexReady(), 1);

  const auto rows = random_vectors(300, 2);
  index->addVectors(rows.data(), 300, 0);
  index->waitForIndexReady();
  EXPECT_EQ(index->isIndexed(row(rows, 0)), 0);
  EXPECT_EQ(index->isDuplicate(row(rows, 0), 1e9f), 0);
  query_ptr query(index->createQuerySession(300, 5));
  ASSERT_EQ(query->query(row(rows, 299), 0, 5), 0u);
  EXPECT_EQ(ids_of(query.get()), nearest(rows, row(rows, 299), 5));
}

TEST(Contract, AddsDeletesAndMeasures) {
  const auto rows = random_vectors(101, 3);
  index_ptr index(lib().instance(dimension));
  EXPECT_EQ(index->addVector(row(rows, 0), 0, 0), 0u);
  EXPECT_EQ(index->addVector(row(rows, 1), 0, 0), 1u);
  EXPECT_EQ(index->addVectors(row(rows, 2), 97, 0), 2u | u64{98} << 32);
  index->this_is_preproduction_software(0);
  EXPECT_EQ(index->addVectors(row(rows, 99), 1, 0), 0u);
  EXPECT_EQ(index->addVector(row(rows, 99), 0, 0), 99u) << "single additions do not ask the switch";
  index->this_is_preproduction_software(1);
  EXPECT_EQ(index->addVectors(row(rows, 100), 1, 0), 100u | u64{100} << 32);
  index->waitForIndexReady();

  query_ptr query(index->createQuerySession(100, 3));
  const auto found = [&](u32 id) {
    EXPECT_EQ(query->query(row(rows, id), 0, 3), 0u);
    const auto ids = ids_of(query.get());
    return std::find(ids.begin(), ids.end(), id) != ids.end();
  };
  u32 gone[] = {5, 6, 100};
  index->deleteVectors(gone, 0, 0);
  EXPECT_TRUE(found(5));
  index->deleteVector(0, 0);
  index->deleteVectors(gone, 3, 0);
  for (const u32 id : {0u, 5u, 6u, 100u}) EXPECT_FALSE(found(id)) << id;
  EXPECT_TRUE(found(7));
  index->deleteVectors(gone, 2, 1);
  EXPECT_TRUE(found(5));
  EXPECT_FALSE(found(100));

  float sum = 0;
  for (int d = 0; d < dimension; ++d)
    sum += (row(rows, 7)[d] - row(rows, 9)[d]) * (row(rows, 7)[d] - row(rows, 9)[d]);
  EXPECT_NEAR(index->distance(7u, row(rows, 9)), sum, sum * 1e-5);
  EXPECT_NEAR(index->distance(row(rows, 7), row(rows, 9)), sum, sum * 1e-5);
  EXPECT_FLOAT_EQ(index->distance(4711u, row(rows, 9)), std::numeric_limits<float>::max());
  float unit[] = {3, 0, 4, 0, 0};
  index->normalize(unit, 5);
  EXPECT_NEAR(unit[0], 0.6f, 1e-6f);
  EXPECT_NEAR(unit[2], 0.8f, 1e-6f);
}

TEST(Contract, ASessionAnswersContinuesAndExcludes) {
  const auto rows = random_vectors(400, 4);
  index_ptr index = filled_index(rows);
  query_ptr query(index->createQuerySession(0, 10)), other(index->createQuerySession(0, 10));
  EXPECT_EQ(query->getParent(), index.get());
  EXPECT_NE(query->getSessionId(), 0u);
  EXPECT_NE(query->get_objid(), other->get_objid());
  EXPECT_EQ(index->getQuerySession(query->getSessionId()), query.get());
  EXPECT_EQ(index->getQuerySession(0), nullptr);
  query->setUserData(&query);
  EXPECT_EQ(query->getUserData(), &query);
  EXPECT_EQ(query->setRadius(-1), -1);
  EXPECT_EQ(query->setRadius(0), 0);
  EXPECT_EQ(query->setRadius(400), 0);

  const float* const v = row(rows, 42);
  const auto truth = nearest(rows, v, 20);
  ASSERT_EQ(query->query(v, 0, 10), 0u);
  const ids_t* const ids = query->getResultIds(0);
  const distances_t* const distances = query->getResultDists(0);
  ASSERT_EQ(ids->count, 10u);
  ASSERT_EQ(distances->count, 10u);
  for (u32 i = 0; i < 10; ++i) {
    EXPECT_EQ(ids->ids[i], truth[i]);
    EXPECT_FLOAT_EQ(distances->distances[i], index->distance(ids->ids[i], v));
  }
  const ids_t* const copy = query->getResultIds(1);
  EXPECT_EQ(copy->owned, 1u);
  EXPECT_TRUE(std::equal(truth.begin(), truth.begin() + 10, copy->ids));
  EXPECT_EQ(query->getResultDists(1)->owned, 1u);
  EXPECT_EQ(query->getResults(1)->count, 10u);

  ASSERT_EQ(query->more(), 0u);
  for (const u32 id : ids_of(query.get()))
    EXPECT_EQ(std::count(truth.begin(), truth.begin() + 10, id), 0) << id;
  ASSERT_EQ(query->filter(42), 0u);
  EXPECT_EQ(query->filter(failed), failed);
  ASSERT_EQ(query->query(v, 0, 10), 0u);
  EXPECT_EQ(ids_of(query.get()).front(), truth[1]);
  ASSERT_EQ(query->refine(), 0u);
  const auto refined = ids_of(query.get());
  EXPECT_EQ(std::count(refined.begin(), refined.end(), 42u), 0);
}

TEST(Contract, ListenersAreAskedAndTold) {
  const auto rows = random_vectors(300, 5);
  index_ptr index = filled_index(rows);
  query_listener listener;
  query_ptr query(index->createQuerySession(300, 10));
  std::atomic<bool> same{true};
  listener.filter = [&](KorvexQuery* asked, u32 id) {
    if (asked != query.get()) same = false;
    return static_cast<int>(id % 2);
  };
  query->setListener(&listener, 1);
  ASSERT_EQ(query->query(row(rows, 8), 0, 10), 0u);
  ASSERT_TRUE(listener.calls.reaches(1));
  auto ids = ids_of(query.get());
  EXPECT_EQ(ids.size(), 10u);
  for (const u32 id : ids) EXPECT_EQ(id % 2, 0u);
  EXPECT_TRUE(same);

  query->setListener(&listener, 0);  // results only
  ASSERT_EQ(query->query(row(rows, 9), 0, 10), 0u);
  ASSERT_TRUE(listener.calls.reaches(2));
  EXPECT_EQ(ids_of(query.get()).front(), 9u);

  listener.filter = [](KorvexQuery*, u32) -> int { throw std::runtime_error("of the host"); };
  query->setListener(&listener,
                     1);  // what a host throws does not end the process; the candidate stays
  ASSERT_EQ(query->query(row(rows, 9), 0, 10), 0u);
  ASSERT_TRUE(listener.calls.reaches(3));
  EXPECT_EQ(ids_of(query.get()).front(), 9u);

  query->setListener(nullptr, 1);
  ASSERT_EQ(query->query(row(rows, 10), 0, 10), 0u);
  EXPECT_EQ(ids_of(query.get()).front(), 10u);
  query.reset();
  EXPECT_EQ(listener.calls.count(), 3);
}

TEST(Contract, CallbacksMayQueryAndDestroy) {
  const auto rows = random_vectors(300, 6);
  index_ptr index = filled_index(rows);
  query_listener chain;
  KorvexQuery* query = index->createQuerySession(100, 5);
  std::atomic<u32> next{1};
  chain.results = [&](KorvexQuery* done) {
    EXPECT_EQ(ids_of(done).front(), next - 1);
    if (next < 20)
      EXPECT_EQ(done->query(row(rows, next++), 0, 5), 0u);
    else
      done->destroy();
  };
  query->setListener(&chain, 0);
  ASSERT_EQ(query->query(row(rows, 0), 0, 5), 0u);
  EXPECT_TRUE(chain.calls.reaches(20));
}

TEST(Contract, TheReadyNoticeComesOnceAndAtOnceWhenDue) {
  const auto rows = random_vectors(200, 7);
  index_ptr index = filled_index(rows);
  index_listener listener, later;
  index->setIndexListener(&listener, 0);
  EXPECT_EQ(listener.calls.count(), 1);
  EXPECT_EQ(listener.indexed, 200u);
  EXPECT_EQ(listener.added, 200u);
  index->setIndexListener(nullptr, 0);
  index->setIndexListener(&later, 250);
  EXPECT_EQ(later.calls.count(), 0) << "a notice already covered these";
  index->addVectors(rows.data(), 200, 0);
  EXPECT_TRUE(later.calls.reaches(1));
  index->waitForIndexReady();
  EXPECT_EQ(later.calls.count(), 1);
  EXPECT_EQ(listener.calls.count(), 1);

  index_listener searching;
  std::atomic<u32> first{failed};
  searching.ready = [&](Korvex* ready) {
    query_ptr query(ready->createQuerySession(100, 1));
    if (query->query(row(rows, 3), 0, 1) == 0) first = query->getResults(0)->ids[0];
  };
  index->setIndexListener(&searching, 1);
  index->addVectors(rows.data(), 100, 0);
  ASSERT_TRUE(searching.calls.reaches(1));
  EXPECT_EQ(first % 200, 3u) << "the vectors were added more than once";
}

TEST(Contract, ABatchAnswersAsSingleQueriesDo) {
  const auto rows = random_vectors(500, 8);
  bulk_listener listener;
  index_ptr index = filled_index(rows);
  bulk_ptr bulk(index->createBulkQuerySession(200));
  query_ptr single(index->createQuerySession(200, 4));
  EXPECT_NE(bulk->get_objid(), single->get_objid());
  EXPECT_EQ(bulk->setRadius(-1), -1);
  EXPECT_EQ(bulk->setRadius(200), 0);
  bulk->setUserData(&bulk);
  EXPECT_EQ(bulk->getUserData(), &bulk);
  for (int round = 0; round < 2; ++round) {
    bulk->setListener(round == 1 ? &listener : nullptr);
    {
      const auto queries = random_vectors(100, 9);  // the host's may go at once
      ASSERT_EQ(bulk->query(queries.data(), 100, 0, 4), 0u);
    }
    ASSERT_TRUE(round == 0 || listener.calls.reaches(1));
    const bulk_results_t* const results = bulk->getResultIds(0);
    ASSERT_EQ(results->query_count, 100u);
    ASSERT_EQ(results->k, 4u);
    const auto queries = random_vectors(100, 9);
    for (u32 i = 0; i < 100; ++i) {
      ASSERT_EQ(single->query(row(queries, i), 0, 4), 0u);
      EXPECT_EQ(ids_of(single.get()),
                std::vector<u32>(results->ids + 4 * i, results->ids + 4 * i + 4))
          << i;
    }
  }
  ASSERT_EQ(bulk->query(row(rows, 0), 2, 0, 3), 0u);
  const std::string text = log_of(bulk.get(), [] {});
  EXPECT_EQ(count_of(text, "result k=3 count 2\n"), 1u);
  EXPECT_EQ(count_of(text, "(bulk 0)\n[0, "), 1u);
  EXPECT_EQ(count_of(text, "(bulk 1)\n[1, "), 1u);
}

TEST(Contract, BadArgumentsGetTheFailureValueAndOneLine) {
  const auto rows = random_vectors(100, 10);
  index_ptr index = filled_index(rows);
  query_ptr query(index->createQuerySession(100, 3));
  bulk_ptr bulk(index->createBulkQuerySession(10)), drain(index->createBulkQuerySession(10));
  const std::vector<float> nan(dimension, not_a_number);
  const std::vector<float> infinite(dimension, std::numeric_limits<float>::infinity());
  KorvexUtils* const utils = lib().utils();
  const struct {
    const char* what;
    std::function<bool()> refused;
  } rows_of_table[] = {
      {"add null", [&] { return index->addVector(nullptr, 0, 0) == 0; }},
      {"add nan", [&] { return index->addVector(nan.data(), 0, 0) == 0; }},
      {"add infinity", [&] { return index->addVector(infinite.data(), 0, 0) == 0; }},
      {"add many null", [&] { return index->addVectors(nullptr, 3, 0) == 0; }},
      {"add none", [&] { return index->addVectors(rows.data(), 0, 0) == 0; }},
      {"add minus one", [&] { return index->addVectors(rows.data(), -1, 0) == 0; }},
      {"delete a missing id", [&] { return index->deleteVector(100, 0), true; }},
      {"delete no id", [&] { return index->deleteVector(failed, 0), true; }},
      {"delete null", [&] { return index->deleteVectors(nullptr, 2, 0), true; }},
      {"distance of a missing id", [&] { return index->distance(100u, rows.data()) > 3e38f; }},
      {"distance to null", [&] { return index->distance(1u, nullptr) > 3e38f; }},
      {"distance from null",
       [&] { return index->distance(static_cast<float*>(nullptr), rows.data()) > 3e38f; }},
      {"normalize null", [&] { return index->normalize(nullptr, 4), true; }},
      {"indexed null", [&] { return index->isIndexed(nullptr) == 0; }},
      {"disk test of null", [&] { return index->testDiskPerformance(nullptr, 0, 0, 1, 1), true; }},
      {"radius", [&] { return index->setRadius(0, 1) == -1; }},
      {"query null", [&] { return query->query(nullptr, 0, 3) == failed; }},
      {"query nan", [&] { return query->query(nan.data(), 0, 3) == failed; }},
      {"query radius", [&] { return query->setRadius(-5) == -1; }},
      {"bulk radius", [&] { return bulk->setRadius(-5) == -1; }},
      {"delete files of null", [&] { return utils->deleteFiles(nullptr, 0, "korvex", 0) == -1; }},
      {"delete files nowhere",
       [&] { return utils->deleteFiles("/no/such/place", 0, "korvex", 0) == -1; }},
      {"delete files of no kind", [&] { return utils->deleteFiles(".", 0, nullptr, 0) == -1; }},
  };
  for (const auto& entry : rows_of_table) {
    const std::string text =
        log_of(drain.get(), [&] { EXPECT_TRUE(entry.refused()) << entry.what; });
    EXPECT_EQ(count_of(text, "\n") - count_of(text, "result k="), 1u) << entry.what << ": " << text;
  }
  // Batches answer for each query; nothing to answer is no refusal.
  EXPECT_EQ(bulk->query(nullptr, 2, 0, 3), 0u);
  EXPECT_EQ(bulk->getResultIds(0)->query_count, 2u);
  EXPECT_EQ(bulk->query(rows.data(), 0, 0, 3), 0u);
  EXPECT_EQ(bulk->getResultIds(0)->query_count, 0u);
  bulk->query(rows.data(), -1, 0, 3);
  EXPECT_EQ(bulk->query(rows.data(), 2, 0, -1), 0u);
  EXPECT_EQ(bulk->getResultIds(0)->k, 10u);

  for (const int k : {0, -1, 1000}) {
    ASSERT_EQ(query->query(row(rows, 5), 0, k), 0u);
    EXPECT_EQ(query->getResults(0)->count, k == 1000 ? 100u : 10u) << k;
  }
  ASSERT_EQ(query->query(row(rows, 5), 0, 3), 0u);
  EXPECT_EQ(ids_of(query.get()), nearest(rows, row(rows, 5), 3)) << "the index goes on unharmed";
}

TEST(Contract, AnEmptyIndexRefusesQueries) {
  index_ptr index(lib().instance(dimension));
  const std::vector<float> v(dimension, 1.0f);
  EXPECT_FLOAT_EQ(index->distance(0u, v.data()), std::numeric_limits<float>::max());
  index->deleteVector(0, 0);
  index->waitForIndexReady();
  EXPECT_EQ(index->getQuerySession(1), nullptr);
  query_ptr query(index->createQuerySession(10, 2));
  EXPECT_EQ(query->query(v.data(), 0, 2), failed);
  EXPECT_EQ(query->more(), failed);
  EXPECT_EQ(query->getResults(0)->count, 0u);
  bulk_ptr bulk(index->createBulkQuerySession(10));
  ASSERT_NE(bulk->getResultIds(0), nullptr) << "before the first batch";
  EXPECT_EQ(bulk->query(v.data(), 1, 0, 2), 0u);
  EXPECT_EQ(bulk->getResultIds(0)->ids[1], 0u);
}

TEST(Contract, AFailedStartIsAnsweredNotThrown) {
  index_ptr index(lib().instance(dimension));
  const std::vector<float> v(dimension, 1.0f);
  index->setConstellationSize(1 << 29);  // graph records beyond what a store takes
  EXPECT_EQ(index->addVector(v.data(), 0, 0), 0u);
  EXPECT_EQ(index->addVectors(v.data(), 1, 0), 0u);
  query_ptr query(index->createQuerySession(10, 2));
  ASSERT_NE(query, nullptr);
  EXPECT_EQ(query->getSessionId(), 0u);
  EXPECT_EQ(query->query(v.data(), 0, 2), failed);
  EXPECT_EQ(query->getResults(0), nullptr);
  index->setConstellationSize(16);
  EXPECT_EQ(index->addVectors(v.data(), 1, 0), 0u) << "the first vector";
  EXPECT_EQ(index->addVector(v.data(), 0, 0), 1u) << "the index goes on";
}

TEST(Contract, ObjectsThatOutliveTheirIndexAnswerWithFailure) {
  const auto rows = random_vectors(100, 11);
  index_ptr index = filled_index(rows);
  query_ptr query(index->createQuerySession(100, 3));
  bulk_ptr bulk(index->createBulkQuerySession(10));
  query_listener listener;
  ASSERT_EQ(query->query(row(rows, 1), 0, 3), 0u);
  ASSERT_EQ(bulk->query(rows.data(), 10, 0, 3), 0u);
  index.reset();
  EXPECT_EQ(query->getParent(), nullptr);
  EXPECT_EQ(query->query(row(rows, 1), 0, 3), failed);
  EXPECT_EQ(query->more(), failed);
  EXPECT_EQ(query->refine(), failed);
  EXPECT_EQ(query->filter(1), failed);
  EXPECT_EQ(query->getResults(1), nullptr);
  EXPECT_EQ(query->getResultIds(1), nullptr);
  EXPECT_EQ(query->getResultDists(0), nullptr);
  query->setListener(&listener, 1);
  EXPECT_EQ(bulk->query(rows.data(), 10, 0, 3), failed);
  EXPECT_EQ(bulk->getResultIds(0), nullptr);
  bulk->printResults();
}

TEST(Contract, DestroyingUnderLoadEndsEverything) {
  constexpr u32 n = 600;
  const auto rows = random_vectors(n, 12);
  for (int round = 0; round < 6; ++round) {
    query_listener restless;
    bulk_listener batch;
    restless.results = [](KorvexQuery* done) { done->more(); };
    index_ptr index(lib().instance(dimension));
    index->setQueryThreads(2, 4);
    std::vector<query_ptr> queries;
    bulk_ptr bulk(index->createBulkQuerySession(200));
    std::thread asking;
    index->addVectors(rows.data(), n, 0);
    if (round % 2 == 0) {  // else it goes while it is indexing
      for (int i = 0; i < 4; ++i)
        queries.emplace_back(index->createQuerySession(200, 10))->setListener(&restless, 0);
      bulk->setListener(&batch);
      EXPECT_EQ(bulk->query(rows.data(), n, 0, 10), 0u);
      asking = std::thread([&] {
        for (u32 i = 0; queries[i % 4]->getParent() != nullptr; ++i)
          queries[i % 4]->query(row(rows, i % n), 0, 10);
      });
      EXPECT_TRUE(restless.calls.reaches(round));
    }
    const auto start = std::chrono::steady_clock::now();
    index.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    if (asking.joinable()) asking.join();
    EXPECT_TRUE(round % 2 != 0 || batch.calls.reaches(1)) << "the end of a batch is told even so";
  }
}

TEST(Contract, AnIndexMayGoInsideItsCallbacks) {
  const auto rows = random_vectors(300, 13);
  query_listener in_search;
  KorvexQuery* orphan = nullptr;
  {
    Korvex* const index = filled_index(rows).release();
    orphan = index->createQuerySession(100, 5);
    in_search.results = [index](KorvexQuery*) { index->destroy(); };
    orphan->setListener(&in_search, 0);
    ASSERT_EQ(orphan->query(row(rows, 0), 0, 5), 0u);
    ASSERT_TRUE(in_search.calls.reaches(1));
  }
  EXPECT_EQ(orphan->query(row(rows, 0), 0, 5), failed);
  orphan->destroy();

  index_listener in_indexing;
  in_indexing.ready = [](Korvex* index) { index->destroy(); };
  for (int round = 0; round < 3; ++round) {
    Korvex* const index = lib().instance(dimension);
    if (round == 0) {
      index->setThreads(0);  // this thread links, and hears the notice inside its addition
      index->setIndexListener(&in_indexing, 1);
      index->addVector(rows.data(), 0, 0);
    } else {
      index->addVectors(rows.data(), round == 1 ? 1 : 300, 0);
      index->setIndexListener(&in_indexing, 1);
    }
    EXPECT_TRUE(in_indexing.calls.reaches(round + 1));
  }
}

TEST(Contract, UtilitiesAreOneObject) {
  KorvexUtils* const utils = lib().utils();
  ASSERT_NE(utils, nullptr);
  EXPECT_EQ(lib().create_utils(), utils);
  std::set<u64> drawn;
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(utils->getRandom32Max(0), 0u);
    EXPECT_LE(utils->getRandom32Max(6), 6u);
    const double real = utils->getRandom();
    EXPECT_TRUE(real >= 0 && real < 1);
    drawn.insert(utils->getRandom64());
    drawn.insert(utils->getRandom32());
  }
  EXPECT_GT(drawn.size(), 1990u);
  testing::internal::CaptureStdout();
  utils->printMemoryUsage("contract memory", 0);
  EXPECT_EQ(count_of(testing::internal::GetCapturedStdout(), "contract memory"), 1u);
}

}  // namespace
