#include "engine/teardown.h"

#include <exception>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "engine/index_files.h"
#include "engine/runtime.h"
#include "engine/startup.h"
#include "engine/sync.h"
#include "runtime/job_queue.h"
#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "search/result_cache.h"
#include "storage/mempool.h"
#include "storage/persistent_allocator.h"

namespace korvex {

namespace {

constexpr int thread_slot_count = 32;
constexpr int wait_rounds = 11;
constexpr std::uint64_t wait_usec = 10'000;

// Null before the first session; one may be in the making on another thread.
jobq_s* search_queue_of(hnsw_s* hnsw) {
  return std::atomic_ref(hnsw->search_queue).load(std::memory_order_acquire);
}

int active_workers(hnsw_s* hnsw) {
  return static_cast<int>(jobq_thread_count_active(search_queue_of(hnsw)));
}

int active_indexers(const hnsw_s* hnsw) {
  return static_cast<int>(hnsw->runtime->running_threads.load());
}

// Ends when either kind of thread has gone. The time that is left of the bound, in rounds.
int wait_for_threads(hnsw_s* hnsw) {
  for (int round = 0; round < wait_rounds; ++round) {
    const int workers = active_workers(hnsw);
    const int indexers = active_indexers(hnsw);
    if (workers == 0 || indexers == 0) return wait_rounds - round;
    KORVEX_LOG("waiting for threads to exit: search %d index %d\n", workers, indexers);
    platform::sleep_usec(wait_usec);
  }
  return 0;
}

// The strings of an index outlive it; kept reachable, so that leak checkers see them as what they
// are. `promised` have room already: giving an index up needs no memory.
struct string_park {
  std::mutex lock;
  std::vector<char*> strings;
  std::size_t promised = 0;
};
constexpr std::size_t strings_of_index = 2;

string_park& parked_strings() {
  static auto* const park = new string_park;
  return *park;
}

void park_strings(const hnsw_s* hnsw) {
  string_park& park = parked_strings();
  std::lock_guard guard(park.lock);
  park.promised -= strings_of_index;
  if (hnsw->directory != nullptr) park.strings.push_back(hnsw->directory);
  if (hnsw->name != nullptr) park.strings.push_back(hnsw->name);
}

// False, and the files stay, when memory is short.
bool plan_deletion(hnsw_s* hnsw) {
  korvex_runtime_s* const runtime = hnsw->runtime;
  KORVEX_LOG("deleting index files in %s\n", hnsw->directory);
  try {
    runtime->files_name = hnsw->name != nullptr ? hnsw->name : "";
    runtime->files_directory = hnsw->directory;
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void delete_planned_files(const korvex_runtime_s& runtime) {
  try {
    delete_files_beside_index(runtime.files_directory, runtime.files_name);
  } catch (const std::exception& error) {
    KORVEX_LOG_CRITICAL("some index files were not deleted: %s\n", error.what());
  }
}

bool nothing_left_undone(const hnsw_s* hnsw) {
  return load_counter(hnsw->memory_initialised) != 0 && hnsw->networked == hnsw->added &&
         hnsw->taken == hnsw->added && hnsw->runtime->running_threads.load() == 0;
}

void release_members(korvex_runtime_s* runtime) {
  hnsw_s* const hnsw = runtime->hnsw;
  if (runtime->search.release != nullptr) runtime->search.release(hnsw);
  runtime->inline_linker.reset();
  runtime->idle_scratch.clear();
  korvex_release_stores(hnsw);
  delete hnsw->distance;
  if (hnsw->search_pool != nullptr) mempool_destroy(hnsw->search_pool);
  jobq_cleanup(hnsw->search_queue);
  cond_destroy(&runtime->add_cond);
}

// The flag tells the next opening that every other page is as it should be, so it reaches the device after them.
void vouch_for_everything(hnsw_s* hnsw, persistent_malloc_s* manager) {
  if (hnsw->clean_close == 0 && persistent_malloc_sync(manager) == 0) hnsw->clean_close = 1;
}

}  // namespace

void korvex_prepare_free() {
  string_park& park = parked_strings();
  std::lock_guard guard(park.lock);
  const std::size_t wanted = park.strings.size() + park.promised + strings_of_index;
  if (park.strings.capacity() < wanted) park.strings.reserve(2 * wanted);
  park.promised += strings_of_index;
}

void korvex_free(hnsw_s* hnsw) {
  if (hnsw == nullptr) return;
  korvex_runtime_s* const runtime = hnsw->runtime;
  KORVEX_LOG("clean up started: active threads search %d index %d\n", active_workers(hnsw),
             active_indexers(hnsw));
  std::atomic_ref(hnsw->stop_searching).store(1);
  std::atomic_ref(hnsw->stop_indexing).store(1);
  cond_broadcast(&runtime->add_cond);
  if (jobq_s* const queue = search_queue_of(hnsw)) {
    jobq_trigger(queue, 1);
    runtime->search.cancel_queued(hnsw);
  }
  int rounds_left = wait_for_threads(hnsw);

  cache_search_destroy();
  if (hnsw->destroy_on_delete != 0 && hnsw->directory != nullptr && !plan_deletion(hnsw))
    KORVEX_LOG_CRITICAL("no memory to delete the index files\n");
  park_strings(hnsw);

  if (hnsw->on_disk != 0) indexes_closing.fetch_add(1);
  // The host's claim goes; threads that stay inside a callback release the rest when they leave.
  runtime_add_handle(runtime);
  runtime->users.fetch_or(runtime_closed);
  runtime_release_use(runtime);
  for (; rounds_left > 0 && !runtime->users_gone.load(); --rounds_left)
    for (int i = 0; i < 10 && !runtime->users_gone.load(); ++i)
      platform::sleep_usec(wait_usec / 10);
  runtime_release_handle(runtime);
}

void korvex_release(korvex_runtime_s* runtime) {
  hnsw_s* const hnsw = runtime->hnsw;
  const bool on_disk = hnsw->on_disk != 0;
  // The stores before the record that vouches for them.
  const bool clean = nothing_left_undone(hnsw) && korvex_sync_stores(hnsw, 0);
  release_members(runtime);
  persistent_malloc_s* const manager = hnsw->memory_manager;
  clear_process_fields(hnsw);
  // The lock of the index file goes last: nobody opens what is still being written or deleted.
  if (runtime->files_directory.empty()) {
    if (clean) vouch_for_everything(hnsw, manager);
    persistent_free(manager, hnsw);
    persistent_malloc_destroy(manager);
  } else {
    // A deletion that is cut off must not leave a record that asks for lost files.
    hnsw->durable = 0;
    delete_planned_files(*runtime);
    persistent_malloc_destroy_and_remove(manager);
  }
  if (on_disk) indexes_closing.fetch_sub(1);
}

int korvex_get_thread_index(hnsw_s* hnsw) {
  for (int slot = 0; slot < thread_slot_count; ++slot) {
    std::uint8_t expected = 0;
    if (std::atomic_ref(hnsw->thread_slots[slot]).compare_exchange_strong(expected, 1)) return slot;
  }
  return -1;
}

void korvex_free_thread_index(hnsw_s* hnsw, int slot) {
  if (slot < 0 || slot >= thread_slot_count) return;
  if (std::atomic_ref(hnsw->thread_slots[slot]).exchange(0) == 0)
    KORVEX_LOG("warning: thread index was not in use: %d\n", slot);
}

void* thread_work(void* argument) {
  KORVEX_LOG("Thread %d started\n", *static_cast<const int*>(argument));
  platform::sleep_usec(2'000'000);
  return nullptr;
}

}  // namespace korvex
