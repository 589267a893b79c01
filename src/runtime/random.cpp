#include "runtime/random.h"

#include <bit>
#include <ctime>

#include "runtime/platform/threads.h"

namespace korvex {
namespace {

struct generator {
  std::uint64_t state[4];
  bool seeded;
};
thread_local generator current_generator{};

std::uint64_t splitmix64(std::uint64_t& state) {
  std::uint64_t z = state += 0x9E3779B97F4A7C15;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
  return z ^ (z >> 31);
}

}  // namespace

void seed_random(std::uint64_t seed) {
  generator& g = current_generator;
  for (std::uint64_t& word : g.state) word = splitmix64(seed);
  g.seeded = true;
}

std::uint64_t random_u64() {
  generator& g = current_generator;
  if (!g.seeded)
    seed_random(platform::thread_id() ^ static_cast<std::uint64_t>(std::time(nullptr)));
  std::uint64_t(&s)[4] = g.state;
  const std::uint64_t result = std::rotl(s[1] * 5, 7) * 9;
  const std::uint64_t shifted = s[1] << 17;
  s[2] ^= s[0];
  s[3] ^= s[1];
  s[1] ^= s[2];
  s[0] ^= s[3];
  s[2] ^= shifted;
  s[3] = std::rotl(s[3], 45);
  return result;
}

std::uint32_t random_u32() {
  return static_cast<std::uint32_t>(random_u64());
}

std::uint32_t random_u32_max(std::uint32_t max) {
  return static_cast<std::uint32_t>((std::uint64_t{max} + 1) * random_u32() >> 32);
}

double random_double() {
  return static_cast<double>(random_u64() >> 11) * 0x1p-53;
}

}  // namespace korvex
