#include <korvex/index.hpp>

int main() {
  korvex::index index({.dimension = 2});
  index.add(std::vector<float>{1, 2});
  return index.search(std::vector<float>{1, 2}, 1).at(0).id == 0 && index.added() == 1 ? 0 : 1;
}
