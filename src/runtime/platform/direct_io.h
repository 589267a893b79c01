#ifndef KORVEX_RUNTIME_PLATFORM_DIRECT_IO_H
#define KORVEX_RUNTIME_PLATFORM_DIRECT_IO_H

namespace korvex::platform {

// open_unbuffered for callers that have flags of the C runtime (O_RDWR, O_CREAT, O_EXCL, O_TRUNC),
// whose numbers differ between systems. A descriptor or -1.
int open_unbuffered_flags(const char* path, int flags);

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_DIRECT_IO_H
