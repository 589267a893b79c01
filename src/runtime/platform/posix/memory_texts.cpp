#include "runtime/platform/memory_texts.h"

namespace korvex::platform {

const char* const mapping_name = "Linux mmap";

const char* const large_pages_help =
    "To enable huge pages on Linux, reserve them with 'sysctl vm.nr_hugepages=<pages>'";

const char* const memory_lock_help =
    "To enable memory locking on Linux:\n"
    "1. Raise the locked-memory limit (ulimit -l):\n"
    "   a) Add 'memlock unlimited' for your user to /etc/security/limits.conf\n"
    "   b) For a service set LimitMEMLOCK=infinity\n"
    "   c) For a container use --ulimit memlock=-1\n\n"
    "2. Alternative: grant CAP_IPC_LOCK or run as root\n\n";

}  // namespace korvex::platform
