#ifndef KORVEX_CLI_ERRORS_H
#define KORVEX_CLI_ERRORS_H

#include <stdexcept>
#include <string>

namespace korvex::cli {

// What the tool hands to its caller. Told by --help; scripts rely on the numbers.
enum exit_code : int {
  exit_ok = 0,
  exit_failed = 1,  // the index refused an operation, or memory ran out
  exit_usage = 2,
  exit_input = 3,
  exit_output = 4,
  exit_findings = 5,
};

inline constexpr const char* exit_code_help =
    "Exit codes: 0 done; 1 the index refused an operation or memory ran out; 2 wrong options;\n"
    "3 an input file cannot be read or is damaged; 4 the results or the log cannot be written;\n"
    "5 verify found something wrong.";

// Ends the verb: main prints the text to stderr and exits with the code.
class tool_error : public std::runtime_error {
 public:
  tool_error(exit_code code, const std::string& text) : std::runtime_error(text), code_(code) {}
  exit_code code() const { return code_; }

 private:
  exit_code code_;
};

}  // namespace korvex::cli

#endif  // KORVEX_CLI_ERRORS_H
