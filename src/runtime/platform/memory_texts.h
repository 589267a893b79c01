#ifndef KORVEX_RUNTIME_PLATFORM_MEMORY_TEXTS_H
#define KORVEX_RUNTIME_PLATFORM_MEMORY_TEXTS_H

// The parts of messages about memory that name the operating system.
namespace korvex::platform {

extern const char* const mapping_name;      // begins the lines about a failed mapping
extern const char* const large_pages_help;  // one line, without its end
extern const char* const memory_lock_help;  // paragraphs, with an empty line at the end

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_MEMORY_TEXTS_H
