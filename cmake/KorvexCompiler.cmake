find_program(KORVEX_CCACHE ccache)
mark_as_advanced(KORVEX_CCACHE)
if(KORVEX_CCACHE AND NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${KORVEX_CCACHE}")
endif()

# Where everything is built once, to be tested, the compiler has most of the work.
option(KORVEX_QUICK_BUILD "Compile the tests and the tool in one piece a program and without optimising" OFF)

# What every target of the project is compiled with.
find_package(Threads REQUIRED)

add_library(korvex_compiler INTERFACE)
target_compile_options(korvex_compiler INTERFACE
  -Wall -Wextra -Wpedantic -Wformat=2 -Werror -fno-math-errno)
# In one piece, names of one file hide those of another.
target_compile_options(korvex_compiler INTERFACE $<$<NOT:$<BOOL:$<TARGET_PROPERTY:UNITY_BUILD>>>:-Wshadow>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 takes inlined std::string concatenation for overlapping copies, and an atomic store behind a pointer that it
  # believes may be null for one past the end.
  target_compile_options(korvex_compiler INTERFACE -Wno-restrict -Wno-stringop-overflow)
endif()
target_link_libraries(korvex_compiler INTERFACE Threads::Threads)
if(WIN32)
  # Windows 10, without the parts of its headers that nobody here needs.
  target_compile_definitions(korvex_compiler INTERFACE _WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN NOMINMAX)
  # Its stacks are aligned to 16 bytes only, which the compiler forgets for wider vectors that it spills.
  target_compile_options(korvex_compiler INTERFACE -Wa,-muse-unaligned-vector-move)
endif()

# xxHash: Debian's library, or its header compiled in where there is none for the target.
add_library(korvex_xxhash INTERFACE)
if(WIN32)
  include(HeadersOfHost)
  korvex_host_headers(korvex::xxhash_header xxhash.h)
  target_compile_definitions(korvex_xxhash INTERFACE XXH_INLINE_ALL)
  target_link_libraries(korvex_xxhash INTERFACE korvex::xxhash_header)
else()
  find_library(KORVEX_XXHASH xxhash REQUIRED)
  target_link_libraries(korvex_xxhash INTERFACE ${KORVEX_XXHASH})
endif()

if(KORVEX_SANITIZE)
  add_compile_options(-fsanitize=${KORVEX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # With the sanitizers' own code in between GCC can no longer see that std::regex fills in what it reads.
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
  add_link_options(-fsanitize=${KORVEX_SANITIZE})
endif()

# For directories whose own code computes little.
macro(korvex_compile_quickly)
  if(KORVEX_QUICK_BUILD)
    set(CMAKE_UNITY_BUILD ON)
    set(CMAKE_UNITY_BUILD_BATCH_SIZE 0)
    add_compile_options(-O0)
  endif()
endmacro()
