#ifndef KORVEX_API_BANNER_H
#define KORVEX_API_BANNER_H

namespace korvex {

inline constexpr int interface_version = 1;

// Lines for a human: what this library is, and where it lives.
inline constexpr const char* banner_line =
    "Korvex: approximate nearest-neighbour search for float vectors\n";
inline constexpr const char* project_line = "Korvex project page: https://korvex.example/\n";

}  // namespace korvex

#endif  // KORVEX_API_BANNER_H
