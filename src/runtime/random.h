#ifndef KORVEX_RUNTIME_RANDOM_H
#define KORVEX_RUNTIME_RANDOM_H

#include <cstdint>

namespace korvex {

// Fast pseudo-random numbers (xoshiro256**), not for secrets.
// Threads     each thread has its own generator: no lock, no shared word. An unseeded one seeds
//             itself from the thread's number and the time in seconds on its first number.

// Fixes the sequence of the calling thread.
void seed_random(std::uint64_t seed);

std::uint32_t random_u32();
std::uint64_t random_u64();
// 0 to max, both included; the bias of the multiply-shift mapping is at most 2^-32.
std::uint32_t random_u32_max(std::uint32_t max);
// In [0, 1), 53 random bits.
double random_double();

}  // namespace korvex

#endif  // KORVEX_RUNTIME_RANDOM_H
