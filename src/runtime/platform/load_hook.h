#ifndef KORVEX_RUNTIME_PLATFORM_LOAD_HOOK_H
#define KORVEX_RUNTIME_PLATFORM_LOAD_HOOK_H

// KORVEX_LOAD_HOOK(function), in one source file of a shared library: the system calls the function
// when a process loads the library, once, and never refuses to load it. The function must not
// throw. A system whose compiler has no such attribute registers its own entry point here.
#define KORVEX_LOAD_HOOK(function)                                  \
  __attribute__((constructor)) static void korvex_module_loaded() { \
    function();                                                     \
  }

#endif  // KORVEX_RUNTIME_PLATFORM_LOAD_HOOK_H
