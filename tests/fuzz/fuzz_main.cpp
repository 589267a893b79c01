#include "fuzz/target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  korvex::fuzz::KORVEX_FUZZ_TARGET(data, size);
  return 0;
}
