// An index in files: made once, opened again, asked page by page.
#include <cstdio>
#include <filesystem>
#include <korvex/index.hpp>
#include <random>
#include <vector>

int main(int argc, char** argv) {
  const std::filesystem::path folder =
      argc > 1 ? argv[1] : std::filesystem::temp_directory_path() / "korvex-example";
  std::filesystem::create_directories(folder);
  const std::uint32_t dimension = 32;
  const std::uint32_t count = 5'000;

  // What it will take, before anything is built.
  const korvex::index_options options{.dimension = dimension, .directory = folder, .name = "demo"};
  const korvex::size_estimate sizes = korvex::index::estimate(options, count);
  std::printf("expected: %.1f MB on disk\n", static_cast<double>(sizes.disk_bytes) / 1e6);

  {
    korvex::index index(options);
    std::mt19937 generator(1);
    std::normal_distribution<float> normal;
    std::vector<float> block(std::size_t{1'000} * dimension);
    while (index.added() < count) {
      for (float& component : block) component = normal(generator);
      index.add_block(block);
    }
    // Linking goes on behind the additions; false from the function would end the wait.
    index.wait_ready([](const korvex::progress& now) {
      std::printf("linked %u of %u\n", now.linked, now.added);
      return true;
    });
    index.flush();
  }  // closed here; nothing is lost when a process dies before, either

  // Dimension and metric come from the files.
  korvex::index index(
      {.directory = folder, .name = "demo", .mode = korvex::open_mode::open_existing});
  const std::vector<float> query = index.vector_at(123);
  korvex::pending search = index.search_async(query, 3);
  for (int page = 1; page <= 2; ++page) {
    std::printf("page %d:", page);
    for (const korvex::hit& found : search.get()) std::printf(" %u", found.id);
    std::printf("\n");
    search.more();
  }
  const korvex::statistics stats = index.stats();
  std::printf("%u vectors, %.1f MB on disk\n", stats.live,
              static_cast<double>(stats.disk_bytes) / 1e6);
}
