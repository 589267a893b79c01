#ifndef KORVEX_RESULTS_H
#define KORVEX_RESULTS_H

#include <stdint.h>

// What queries return, for C and C++ alike. Layouts are part of the binary contract.

// The answer of one query, nearest first. The arrays belong to the session and live until its next
// query.
struct korvex_results_s {
  uint32_t count;
  uint32_t owned;
  uint32_t* ids;
  float* distances;
};

struct korvex_result_ids_s {
  uint32_t count;
  uint32_t valid;
  uint32_t owned;  // 1: ids were copied for the caller of getResultIds(1)
  uint32_t* ids;
};

struct korvex_result_dists_s {
  uint32_t count;
  uint32_t owned;
  float* distances;
};

// The answer of a bulk query: row q holds the k ids of query q, nearest first; rows with fewer hits
// end in zeros.
struct korvex_bulk_results_s {
  uint32_t k;
  uint32_t query_count;
  uint32_t valid;
  uint32_t* ids;
};

#ifndef __cplusplus
typedef struct korvex_results_s korvex_results_s;
typedef struct korvex_result_ids_s korvex_result_ids_s;
typedef struct korvex_result_dists_s korvex_result_dists_s;
typedef struct korvex_bulk_results_s korvex_bulk_results_s;
#endif

#endif  // KORVEX_RESULTS_H
