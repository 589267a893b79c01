#ifndef KORVEX_API_UTILS_OBJECT_H
#define KORVEX_API_UTILS_OBJECT_H

#include "korvex/korvex.h"

namespace korvex {

// The helpers behind KorvexUtils. One for the process, without state, never destroyed.
// Threads     any; deleteFiles does not look whether an index uses the files.
class KorvexUtilsIml final : public KorvexUtils {
 public:
  void printMemoryUsage(const char* label, int unused) override;
  int deleteFiles(const char* directory, int unused, const char* extension, int flags) override;
  unsigned getRandom32() override;
  unsigned getRandom32Max(unsigned max) override;
  unsigned long long getRandom64() override;
  double getRandom() override;
};

// Runs the process start-up on first use, so that it serves before any index exists. Never null.
KorvexUtils* utils_instance();

}  // namespace korvex

#endif  // KORVEX_API_UTILS_OBJECT_H
