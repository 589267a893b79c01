// An index in memory: add vectors, search, look at the answer.
#include <cstdio>
#include <korvex/index.hpp>
#include <vector>

int main() {
  // Three components a vector; nearness is squared Euclidean distance unless another is chosen.
  korvex::index index({.dimension = 3});

  // A vector's id is its place in the order of additions.
  index.add(std::vector<float>{0.1f, 0.2f, 0.3f});
  index.add(std::vector<float>{0.9f, 0.8f, 0.7f});
  // Many at once, row after row: ids 2, 3, 4.
  index.add_block(std::vector<float>{0.1f, 0.1f, 0.1f, 0.5f, 0.5f, 0.5f, 0.2f, 0.2f, 0.3f});

  // The two nearest, nearest first. A search sees everything that was added before it.
  const std::vector<float> query = {0.12f, 0.2f, 0.3f};
  for (const auto& [id, distance] : index.search(query, 2))
    std::printf("%u at %.4f\n", id, static_cast<double>(distance));

  // What does not fit is refused, in words.
  try {
    index.add(std::vector<float>{1.0f, 2.0f});
  } catch (const korvex::error& refused) {
    std::printf("refused: %s\n", refused.what());
  }
}
