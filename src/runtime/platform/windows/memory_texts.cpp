#include "runtime/platform/memory_texts.h"

namespace korvex::platform {

const char* const mapping_name = "Windows mmap";

const char* const large_pages_help =
    "To enable large pages on Windows, set the 'Lock Pages in Memory' privilege";

const char* const memory_lock_help =
    "To enable memory locking on Windows:\n"
    "1. Grant 'Lock Pages in Memory' Privilege:\n"
    "   a) Open Local Group Policy Editor (gpedit.msc)\n"
    "   b) Navigate to: Computer Configuration > Windows Settings > \n"
    "      Security Settings > Local Policies > User Rights Assignment\n"
    "   c) Find 'Lock pages in memory' policy\n"
    "   d) Add your user or service account\n\n"
    "2. Alternative: Run application as Administrator\n\n";

}  // namespace korvex::platform
