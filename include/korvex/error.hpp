#ifndef KORVEX_ERROR_HPP
#define KORVEX_ERROR_HPP

#include <stdexcept>
#include <string>

namespace korvex {

enum class errc {
  invalid_argument = 1,  // a value outside of its range; nothing was changed
  dimension_mismatch,    // rows of another length than the index has; nothing was changed
  not_finite,            // NaN, infinity, or a zero vector under cosine; nothing was changed
  no_such_id,            // an id that no addition returned
  labels_off,            // labels were asked for, the index keeps none
  not_found,             // there is no index of that name
  exists,                // there is one already
  mismatch,              // the index on disk was made with other options
  unavailable,           // files cannot be used: in use elsewhere, unreadable, no permission
  no_room,               // memory or disk do not suffice
  closed,                // the index object is empty: closed or moved from
};

// What everything in this front throws. The message says what was given and what was expected.
class error : public std::runtime_error {
 public:
  error(errc code, const std::string& message) : std::runtime_error(message), code_(code) {}
  errc code() const noexcept { return code_; }

 private:
  errc code_;
};

}  // namespace korvex

#endif  // KORVEX_ERROR_HPP
