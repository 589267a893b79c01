#ifndef KORVEX_CLI_ERRORS_H
#define KORVEX_CLI_ERRORS_H

#include <stdexcept>
#include <string>

namespace korvex::cli {

// What the tool hands to its caller. Scripts rely on the numbers; exit_codes below words them.
enum exit_code : int {
  exit_ok = 0,
  exit_failed = 1,
  exit_usage = 2,
  exit_input = 3,
  exit_output = 4,
  exit_findings = 5,
  exit_recall = 6,
};

struct exit_code_entry {
  const char* code;
  const char* meaning;
};
// The table of the man page and the README.
inline constexpr exit_code_entry exit_codes[] = {
    {"0", "done"},
    {"1", "the index refused an operation, is in use, or memory ran out"},
    {"2", "wrong options"},
    {"3", "an input or an index cannot be read or is damaged"},
    {"4", "the results or the log cannot be written"},
    {"5", "verify found something wrong"},
    {"6", "the recall is below what was wanted (eval, tune)"},
    {"130", "interrupted by Ctrl-C (SIGINT); an index that was written to is whole"},
    {"141", "the reader of the output went away (SIGPIPE)"},
    {"143", "ended by SIGTERM; an index that was written to is whole"},
};

// Ends the verb: main prints the text to stderr and exits with the code.
class tool_error : public std::runtime_error {
 public:
  tool_error(exit_code code, const std::string& text) : std::runtime_error(text), code_(code) {}
  exit_code code() const { return code_; }

 private:
  exit_code code_;
};

// Ends the verb after a signal (see interrupt.h): main prints the text, unless it is empty, and lets
// the signal end the process.
class interruption : public std::runtime_error {
 public:
  interruption(int signal, const std::string& text) : std::runtime_error(text), signal_(signal) {}
  int signal() const { return signal_; }

 private:
  int signal_;
};

}  // namespace korvex::cli

#endif  // KORVEX_CLI_ERRORS_H
