#include <korvex/korvex.h>

int main() {
  Korvex* const index = KorvexInstance(2);
  const float vector[2] = {1, 2};
  const unsigned id = index->addVector(vector, 0, 0);
  KorvexQuery* const query = index->createQuerySession(10, 1);
  const bool found = query->query(vector, 0, 1) == 0 && query->getResults(0)->ids[0] == id;
  query->destroy();
  index->destroy();
  return found ? 0 : 1;
}
