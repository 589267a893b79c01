#include "runtime/disk_probe.h"

#include <cmath>
#include <fstream>

#include "fuzz/target.h"

// The input is the text of the kept figures.
namespace korvex::fuzz {

void disk_probe(const std::uint8_t* data, std::size_t size) {
  static const workshop shop("disk_probe", [](const workshop& made) {
    std::ofstream(made.path() + "/iops_result.txt") << "184032.25\n95210.00\n";
  });
  std::ofstream(shop.path() + "/iops_result.txt", std::ios::binary)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  disk_iops_s figures{};
  // Without a block size nothing can be measured: what is not taken from the file fails at once.
  const int result = disk_perf_test(shop.path().c_str(), 0, 0, 1, 0, &figures);
  if (result == 1)
    KORVEX_FUZZ_CHECK(std::isfinite(figures.read) && std::isfinite(figures.write) &&
                      figures.read >= 0 && figures.write >= 0);
  else
    KORVEX_FUZZ_CHECK(result == -1 && figures.read == -1 && figures.write == -1);
}

}  // namespace korvex::fuzz
