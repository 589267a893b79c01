// Labels, filters, lists of allowed ids, removal: which vectors may be answers.
#include <cstdio>
#include <korvex/index.hpp>
#include <vector>

namespace {

void print(const char* what, const korvex::hits& found) {
  std::printf("%s:", what);
  for (const korvex::hit& one : found) std::printf(" %u", one.id);
  std::printf("\n");
}

}  // namespace

int main() {
  // A shop: each article has a vector, and its colour as a label. Cosine looks at directions only.
  enum colour : std::uint64_t { red = 1, green = 2 };
  korvex::index articles({.dimension = 2, .metric = korvex::metric::cosine, .labels = true});
  for (int i = 0; i < 100; ++i) {
    const std::vector<float> vector = {1.0f, static_cast<float>(i)};
    articles.add(vector, i % 2 == 0 ? red : green);
  }
  const std::vector<float> query = {1.0f, 40.0f};

  print("all", articles.search(query, 3));

  // Vectors that a filter rejects still lead the search on; few that pass are scanned exactly.
  korvex::search_options only_green;
  only_green.filter = [](korvex::id_type, std::uint64_t label) { return label == green; };
  print("green", articles.search(query, 3, only_green));

  // Ids that are known beforehand: no function is called for them.
  const std::vector<korvex::id_type> in_stock = {3, 38, 77, 91};
  print("in stock", articles.search(query, 3, {.allowed = in_stock}));

  // Sold out, and back again. Labels may change at any time.
  articles.remove(40);
  print("without 40", articles.search(query, 3));
  articles.restore(40);
  articles.set_label(40, green);
  print("green with 40", articles.search(query, 3, only_green));
}
