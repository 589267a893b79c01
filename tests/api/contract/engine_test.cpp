// The C functions over the bare record, by their names alone.
#include <gtest/gtest.h>

#include <initializer_list>

#include "library.h"
#include "listeners.h"

namespace {

using record = hnsw_s*;
const record no_record = nullptr;

template <class Result, class... Args>
auto c_function(const char* name) {
  return lib().function<Result(Args...)>(name);
}

// Calls each function with the arguments and compares what it returns.
template <class Result, class... Args>
void expect_answers(std::initializer_list<const char*> names, Result expected, Args... args) {
  for (const char* const name : names)
    EXPECT_EQ((c_function<Result, Args...>(name)(args...)), expected) << name;
}

template <class... Args>
void expect_harmless(std::initializer_list<const char*> names, Args... args) {
  for (const char* const name : names) c_function<void, Args...>(name)(args...);
}

void call_without_a_record() {
  expect_harmless({"korvex_free", "korvex_wait_finish_adding", "korvex_print_debug_info",
                   "korvex_set_mips_mode", "korvex_set_norms_mode", "korvex_build_graph",
                   "korvex_build_optimize"},
                  no_record);
  expect_harmless({"korvex_validate_parameters", "korvex_set_threads", "korvex_set_partitions",
                   "korvex_set_parallel_search_jobs", "korvex_enable_label",
                   "korvex_enable_attributes", "korvex_set_numa_node", "korvex_set_distance_type",
                   "korvex_set_normalize", "korvex_enable_index_check"},
                  no_record, 1);
  expect_harmless({"korvex_set_search_threads"}, no_record, 1, 1);
  expect_harmless({"korvex_set_alloc_units", "korvex_set_debug_id"}, no_record, 1u, 1);
  expect_harmless({"korvex_available_memory"}, no_record, u64{1});
  expect_harmless({"korvex_set_disk_index"}, no_record, "x");
  expect_harmless({"korvex_set_duplicate_threshold"}, no_record, 1, 1.0f, 1);
  expect_harmless({"korvex_set_data"}, no_record, 1u, static_cast<void*>(nullptr), 1);
  expect_harmless({"korvex_search_free"}, no_record, 1u);
  expect_harmless({"korvex_search_set_cbdata"}, no_record, 1u, static_cast<const void*>(nullptr));
  expect_harmless({"korvex_bulk_search_free"}, static_cast<void*>(nullptr));

  expect_answers({"korvex_init_memory"}, -1, no_record);
  expect_answers({"korvex_has_finish_adding"}, 0, no_record);
  expect_answers({"korvex_sync_to_disk"}, -1, no_record, 1u);
  expect_answers({"korvex_init_log", "korvex_set_result_cache"}, -1, no_record, 1);
  expect_answers({"korvex_enable_huges_pages", "korvex_destroy_disk_index"}, 0, no_record, 1);
  expect_answers({"korvex_set_max_ram_usage"}, 0, no_record, u64{1});
  expect_answers({"korvex_wait_linked"}, -1, no_record, u64{1});
  expect_answers({"korvex_describe", "korvex_get_counts", "korvex_get_stats"}, -1, no_record,
                 static_cast<void*>(nullptr));
  expect_answers({"korvex_add"}, 0u, no_record, no_vector, u64{1});
  expect_answers({"korvex_try_add"}, -1, no_record, no_vector, u64{1}, static_cast<u32*>(nullptr));
  expect_answers({"korvex_delete"}, -1, no_record, 0u, 0);
  expect_answers({"korvex_is_flag_set_internal"}, 0, no_record, 1u, -1);
  expect_answers({"korvex_get_label"}, u64{0}, no_record, 0u);
  expect_answers({"korvex_set_label"}, u64{0}, no_record, 0u, u64{1});
  expect_answers({"korvex_change_label"}, -1, no_record, 0u, u64{1});
  expect_answers({"korvex_is_indexed"}, 0, no_record, no_vector);
  expect_answers({"korvex_get_distance_ext", "korvex_get_distance_internal"}, farthest, no_record,
                 0u, no_vector);
  expect_answers({"korvex_get_distance"}, farthest, no_record, no_vector, no_vector);
  expect_answers({"korvex_get_vector"}, -1, no_record, 0u, static_cast<float*>(nullptr));
  expect_answers({"korvex_search_init"}, 0u, no_record, 1, static_cast<void*>(nullptr));
}

// Of no record, or of a session that the record does not know.
void call_without_a_session(record index, u32 sid) {
  expect_answers({"korvex_search"}, failed, index, sid, no_vector, 1, 1);
  expect_answers({"korvex_search_more", "korvex_search_refine"}, failed, index, sid);
  expect_answers({"korvex_search_filter"}, failed, index, sid, 0u);
  expect_answers({"korvex_search_refine_vector"}, -1, index, sid, no_vector,
                 static_cast<const void*>(nullptr));
  expect_answers({"korvex_search_get_userdata"}, static_cast<void*>(nullptr), index, sid);
  expect_answers({"korvex_search_result", "korvex_search_result_ids", "korvex_search_result_dists"},
                 static_cast<void*>(nullptr), index, sid, 1);
  expect_harmless({"korvex_search_free"}, index, sid);
}

TEST(ContractEngine, NothingIsAnsweredWithTheFailureValue) {
  call_without_a_record();
  for (const u32 sid : {0u, 1u, failed}) call_without_a_session(no_record, sid);
  EXPECT_EQ(lib().function<record(u32, std::uint8_t, const char*, const char*)>("korvex_init")(
                0, 0, nullptr, nullptr),
            nullptr);
  const auto rows = random_vectors(20, 60);
  index_ptr index = filled_index(rows);
  const record base = index->get_base(0);
  for (const u32 sid : {0u, 1u, 77u, failed}) call_without_a_session(base, sid);
  expect_answers({"korvex_get_vector"}, -1, base, 20u, static_cast<float*>(nullptr));
  expect_answers({"korvex_delete"}, -1, base, failed, 0);
  expect_answers({"korvex_set_result_cache"}, -1, base, 3);
  expect_answers({"korvex_bulk_search"}, failed, base, static_cast<void*>(nullptr), rows.data(), 1,
                 1, 1, static_cast<int (*)(u32, const void*)>(nullptr),
                 static_cast<const void*>(nullptr));
  expect_answers({"korvex_bulk_search_results"}, static_cast<void*>(nullptr), base,
                 static_cast<void*>(nullptr));
}

int count_call(u32, const void* data) {
  static_cast<counter*>(const_cast<void*>(data))->add();
  return 0;
}

TEST(ContractEngine, SessionsAndBatchesWorkOnTheBareRecord) {
  const auto rows = random_vectors(200, 61);
  const record index = lib().function<record(u32, std::uint8_t, const char*, const char*)>(
      "korvex_init")(dimension, 0, nullptr, nullptr);
  ASSERT_NE(index, nullptr);
  u32 first = 7, last = 7;
  c_function<void, record, const float*, int, u32*, u32*>("korvex_add_multiple")(
      index, rows.data(), 200, &first, &last);
  EXPECT_EQ(first, 0u);
  EXPECT_EQ(last, 199u);

  counter calls;
  const u32 sid = c_function<u32, record, int, void*>("korvex_search_init")(index, 5, &calls);
  c_function<void, record, u32, void*, int (*)(u32, const void*), const void*>(
      "korvex_search_set_callbacks")(index, sid, nullptr, count_call, nullptr);
  expect_harmless({"korvex_search_set_cbdata"}, index, sid, static_cast<const void*>(&calls));
  expect_answers({"korvex_search_get_userdata"}, static_cast<void*>(&calls), index, sid);
  expect_answers({"korvex_search"}, 0u, index, sid, row(rows, 8), 200, 5);
  const auto results = [&] {
    return c_function<results_t*, record, u32, int>("korvex_search_result")(index, sid, 0);
  };
  EXPECT_EQ(std::vector<u32>(results()->ids, results()->ids + 5), nearest(rows, row(rows, 8), 5));
  ASSERT_TRUE(calls.reaches(1));
  expect_answers({"korvex_search_filter"}, 0u, index, sid, 8u);
  expect_answers({"korvex_search_refine"}, 0u, index, sid);
  EXPECT_NE(results()->ids[0], 8u);
  EXPECT_TRUE(calls.reaches(2));
  expect_harmless({"korvex_search_free"}, index, sid);

  void* const bulk = c_function<void*>("korvex_bulk_search_alloc")();
  expect_answers({"korvex_bulk_search"}, 0u, index, bulk, rows.data(), 50, 200, 1, count_call,
                 static_cast<const void*>(&calls));
  const bulk_results_t* const answers =
      c_function<bulk_results_t*, record, void*>("korvex_bulk_search_results")(index, bulk);
  for (u32 i = 0; i < 50; ++i) EXPECT_EQ(answers->ids[i], i);
  EXPECT_TRUE(calls.reaches(3));
  expect_harmless({"korvex_bulk_search_free"}, bulk);
  expect_harmless({"korvex_free"}, index);
}

}  // namespace
