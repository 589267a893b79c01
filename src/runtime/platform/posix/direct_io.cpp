#include "runtime/platform/direct_io.h"

#include <fcntl.h>

#include "runtime/platform/files.h"

namespace korvex::platform {

int open_unbuffered_flags(const char* path, int flags) {
  const int access = flags & O_ACCMODE;
  const bool read = access != O_WRONLY;
  const bool write = access != O_RDONLY;
  return open_unbuffered(path, read, write, (flags & O_CREAT) != 0, (flags & O_EXCL) != 0,
                         (flags & O_TRUNC) != 0);
}

}  // namespace korvex::platform
