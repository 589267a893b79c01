#ifndef KORVEX_API_QUERY_OBJECT_H
#define KORVEX_API_QUERY_OBJECT_H

#include <atomic>
#include <cstdint>

#include "engine/runtime.h"
#include "korvex/korvex.h"

namespace korvex {

// A number that no other query object of the process has had (until 2^32 of them were made); never
// 0.
std::uint32_t next_object_id();

// A query session behind KorvexQuery: one search session of the engine under a host's object.
// Threads     any; settings are atomic, the session refuses a second query while one runs.
// Ownership   owns its engine session, and a handle on the index's runtime, so that it may outlive
//             the index: every operation that needs the index answers with its failure value then.
class KorvexQueryImpl final : public KorvexQuery {
 public:
  KorvexQueryImpl(Korvex* parent, hnsw_s* base, int radius);
  // Opens the search session. Throws what the start-up of the index throws; the object is without a
  // session then.
  void open(int k);

  KorvexQueryListener* getListener() const { return listener_.load(); }

  // Waits for a running query and its callback, except inside that callback.
  ~KorvexQueryImpl() override;
  void destroy() override;
  Korvex* getParent() override;
  unsigned get_objid() override;
  unsigned getSessionId() override;
  void setListener(KorvexQueryListener* listener, int filter) override;
  void setUserData(void* data) override;
  void* getUserData() override;
  int setRadius(int radius) override;
  unsigned query(const float* vector, int unused, int k) override;
  unsigned more() override;
  unsigned refine() override;
  unsigned filter(unsigned id) override;
  korvex_results_s* getResults(int copy) override;
  korvex_result_ids_s* getResultIds(int copy) override;
  korvex_result_dists_s* getResultDists(int copy) override;

 private:
  Korvex* const parent_;
  hnsw_s* const base_;
  std::atomic<std::int32_t> radius_;
  std::uint32_t session_id_ = 0;
  std::atomic<KorvexQueryListener*> listener_{nullptr};
  std::atomic<void*> user_data_{nullptr};
  korvex_runtime_s* const runtime_;
  const std::uint32_t object_id_;
};

// What the engine calls for a session; data is its query object.
int korvex_result_callback(unsigned sid, const void* data);
int korvex_filter_callback(const void* data, unsigned id, unsigned long long label);

}  // namespace korvex

#endif  // KORVEX_API_QUERY_OBJECT_H
