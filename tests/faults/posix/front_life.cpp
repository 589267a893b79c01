#include "front_life.h"

#include <array>
#include <korvex/index.hpp>
#include <memory>
#include <new>
#include <optional>

namespace korvex::test {
namespace {

constexpr int front_rows = 40;
constexpr std::size_t front_dimension = 4;

const std::array<float, front_rows * front_dimension>& front_data() {
  static const auto made = [] {
    std::array<float, front_rows * front_dimension> values{};
    unsigned state = 1;
    for (float& value : values)
      value = static_cast<float>((state = state * 1103515245 + 12345) >> 22);
    return values;
  }();
  return made;
}

std::span<const float> front_row(std::size_t number) {
  return std::span(front_data()).subspan(number * front_dimension, front_dimension);
}

// What a caller of the front sees of a failure.
template <class Operation>
bool done(const Operation& operation) {
  try {
    return operation();
  } catch (const error&) {
  } catch (const std::bad_alloc&) {
  }
  return false;
}

}  // namespace

void front_life::live() {
  std::optional<index> index;
  attempt("opening", [&] {
    return done([&] {
      index_options options;
      options.dimension = front_dimension;
      options.directory = directory_;
      options.name = "front";
      options.labels = true;
      options.block_vectors = 16;
      options.indexing_threads = 1;
      options.search_threads = 1;
      index.emplace(options);
      return true;
    });
  });
  if (!index) return;
  for (id_type i = 0; i < front_rows; ++i)
    attempt("adding", [&] {
      return done([&] {
        EXPECT_EQ(index->add(front_row(i), i), i);
        return true;
      });
    });
  search_options filtered;
  filtered.filter = [](id_type id, std::uint64_t label) { return id % 2 == 1 && label == id; };
  const auto finds = [](const hits& found, id_type wanted) {
    return !found.empty() && found[0].id == wanted && found[0].distance < 1e-3f;
  };
  attempt("search", [&] { return done([&] { return finds(index->search(front_row(7), 3), 7); }); });
  attempt("filtered search",
          [&] { return done([&] { return finds(index->search(front_row(9), 3, filtered), 9); }); });
  attempt("search_async", [&] {
    return done([&] {
      pending search = index->search_async(front_row(11), 3);
      const hits first = search.get();
      search.more();
      const hits next = search.get();
      return finds(first, 11) && next.size() == 3 && next[0].id != 11;
    });
  });
  attempt("filtered search_async", [&] {
    return done([&] { return finds(index->search_async(front_row(13), 3, filtered).get(), 13); });
  });
  attempt("vector_at", [&] {
    return done([&] {
      index->remove(3);
      index->restore(3);
      return index->vector_at(3).size() == front_dimension && index->stats().live == front_rows;
    });
  });
}

}  // namespace korvex::test
