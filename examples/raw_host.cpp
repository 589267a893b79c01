// A host by the binary contract: korvex.h alone, classes and listeners.
#include <korvex/korvex.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <vector>

namespace {

// Called on a thread of the library when the answer is there; filters what it is asked about.
class listener : public KorvexQueryListener {
 public:
  int onFilter(KorvexQuery*, unsigned id) override { return id % 2 == 1 ? 0 : 1; }  // odd ids only
  int onResults(KorvexQuery* query) override {
    std::lock_guard lock(mutex_);
    const korvex_results_s* const found = query->getResults(0);
    ids_.assign(found->ids, found->ids + found->count);
    ready_ = true;
    called_.notify_one();
    return 0;
  }
  std::vector<unsigned> wait() {
    std::unique_lock lock(mutex_);
    called_.wait(lock, [this] { return ready_; });
    ready_ = false;
    return ids_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable called_;
  std::vector<unsigned> ids_;
  bool ready_ = false;
};

}  // namespace

int main() {
  if (KorvexInterfaceVersion() != 1) return 1;
  Korvex* const index = KorvexInstance(2);
  if (index == nullptr) return 1;  // the log says why
  // Options come before the first addition.
  index->setDistanceType(Korvex::DISTANCE_L2_SQUARE);
  index->setPatternProbes(1);
  std::vector<float> points;
  for (int i = 0; i < 50; ++i) points.insert(points.end(), {static_cast<float>(100 * i), 0.0f});
  const unsigned long long ids = index->addVectors(points.data(), 50, 0);
  std::printf("ids %u to %u\n", static_cast<unsigned>(ids), static_cast<unsigned>(ids >> 32));
  index->waitForIndexReady();

  listener answers;
  KorvexQuery* const query = index->createQuerySession(100, 4);
  query->setListener(&answers, 1);
  const float wanted[2] = {2010.0f, 0.0f};
  if (query->query(wanted, 0, 4) != 0) return 1;
  std::printf("nearest odd ids:");
  for (const unsigned id : answers.wait()) std::printf(" %u", id);
  query->more();
  std::printf("\nand behind them:");
  for (const unsigned id : answers.wait()) std::printf(" %u", id);
  std::printf("\n");

  // Sessions first, then the index.
  query->destroy();
  index->destroy();
}
