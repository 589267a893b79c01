#include <korvex/engine.h>

int main(void) {
  hnsw_s* const index = korvex_init(2, 0, 0, 0);
  const float vector[2] = {1, 2};
  uint32_t id = 7;
  korvex_add(index, vector, 0);
  const int64_t answered = korvex_search_direct(index, vector, 1, 1, 0, &id, 0, 0);
  korvex_free(index);
  return answered == 1 && id == 0 ? 0 : 1;
}
