// A host by the binary contract: korvex.h alone, classes and listeners.
#include <korvex/korvex.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <vector>

namespace {

// Called on threads of the library: for each vector that might be an answer, and when the answer is
// there.
class listener : public KorvexQueryListener {
 public:
  int onFilter(KorvexQuery*, unsigned id) override { return id == 35 ? 1 : 0; }  // all but one
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
  for (int i = 0; i < 100; ++i)
    points.insert(points.end(),
                  {100.0f * static_cast<float>(i % 10), 100.0f * static_cast<float>(i / 10)});
  const unsigned long long ids = index->addVectors(points.data(), 100, 0);
  std::printf("ids %u to %u\n", static_cast<unsigned>(ids), static_cast<unsigned>(ids >> 32));
  index->waitForIndexReady();

  listener answers;
  KorvexQuery* const query = index->createQuerySession(100, 4);
  query->setListener(&answers, 1);
  const float wanted[2] = {430.0f, 320.0f};
  if (query->query(wanted, 0, 4) != 0) return 1;
  std::printf("nearest:");
  for (const unsigned id : answers.wait()) std::printf(" %u", id);
  query->more();
  std::printf("\nand behind them:");
  for (const unsigned id : answers.wait()) std::printf(" %u", id);
  std::printf("\n");

  // Sessions first, then the index.
  query->destroy();
  index->destroy();
}
