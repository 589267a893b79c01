#ifndef KORVEX_API_BULK_QUERY_OBJECT_H
#define KORVEX_API_BULK_QUERY_OBJECT_H

#include <atomic>
#include <cstdint>

#include "engine/runtime.h"
#include "korvex/korvex.h"
#include "search/bulk.h"

namespace korvex {

// Many queries in one call, behind KorvexBulkQuery.
// Threads     settings are atomic; one batch at a time, and a new one waits for the one before.
// Ownership   owns the batch record and what hangs on it, and a handle on the index's runtime:
//             operations answer with their failure value once the index is gone.
class KorvexBulkQueryImpl final : public KorvexBulkQuery {
 public:
  KorvexBulkQueryImpl(hnsw_s* base, int radius);

  KorvexBulkQueryListener* getListener() const { return listener_.load(); }

  // Waits for a running batch and its callback, except inside that callback.
  ~KorvexBulkQueryImpl() override;
  void destroy() override;
  unsigned get_objid() override;
  void setListener(KorvexBulkQueryListener* listener) override;
  void setUserData(void* data) override;
  void* getUserData() override;
  int setRadius(int radius) override;
  unsigned query(const float* vectors, int n, int unused, int k) override;
  korvex_bulk_results_s* getResultIds(int unused) override;
  void printResults() override;

 private:
  hnsw_s* const base_;
  std::atomic<std::int32_t> radius_;
  std::atomic<KorvexBulkQueryListener*> listener_{nullptr};
  std::atomic<void*> user_data_{nullptr};
  korvex_bulk_search_s bulk_{};
  korvex_runtime_s* const runtime_;
  const std::uint32_t object_id_;
};

// What the engine calls when a batch is answered; data is its bulk query object.
int korvex_bulk_result_callback(unsigned sid, const void* data);

}  // namespace korvex

#endif  // KORVEX_API_BULK_QUERY_OBJECT_H
