#include "runtime/platform/load_hook.h"

#include <cstdio>

#include "api/banner.h"

// Only the shared library links this file: programs that take the library in statically own their
// standard output.
namespace korvex {

namespace {

void greet() {
  std::fputs(banner_line, stdout);
  std::fputs(project_line, stdout);
}

}  // namespace

}  // namespace korvex

KORVEX_LOAD_HOOK(korvex::greet)
