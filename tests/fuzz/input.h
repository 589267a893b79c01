#ifndef KORVEX_TESTS_FUZZ_INPUT_H
#define KORVEX_TESTS_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace korvex::fuzz {

// The bytes of a fuzzer, read from the front. Behind the end everything reads as zero.
class input {
 public:
  input(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}

  bool empty() const { return left_ == 0; }

  template <class T>
  T number() {
    T value{};
    const std::size_t taken = std::min(sizeof value, left_);
    if (taken != 0) std::memcpy(&value, data_, taken);
    skip(taken);
    return value;
  }

  std::string bytes(std::size_t count) {
    const std::size_t taken = std::min(count, left_);
    std::string value(reinterpret_cast<const char*>(data_), taken);
    skip(taken);
    return value;
  }

 private:
  void skip(std::size_t count) {
    data_ += count;
    left_ -= count;
  }

  const std::uint8_t* data_;
  std::size_t left_;
};

}  // namespace korvex::fuzz

#endif  // KORVEX_TESTS_FUZZ_INPUT_H
