# What every target of the project is compiled with.
find_package(Threads REQUIRED)

add_library(korvex_compiler INTERFACE)
target_compile_options(korvex_compiler INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Werror -fno-math-errno)
target_link_libraries(korvex_compiler INTERFACE Threads::Threads)

if(KORVEX_SANITIZE)
  add_compile_options(-fsanitize=${KORVEX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KORVEX_SANITIZE})
endif()
