#ifndef KORVEX_TESTS_SANITIZERS_H
#define KORVEX_TESTS_SANITIZERS_H

// Under sanitizers everything takes several times as long, and what tests promise about figures is promised elsewhere:
// they use less data there.
namespace korvex::test {

#if defined(__SANITIZE_THREAD__)
inline constexpr bool thread_sanitized = true;
#else
inline constexpr bool thread_sanitized = false;
#endif

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = thread_sanitized;
#endif

}  // namespace korvex::test

#endif  // KORVEX_TESTS_SANITIZERS_H
