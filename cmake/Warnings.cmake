# Warnings for our own targets. They become errors only in our presets (CMAKE_COMPILE_WARNING_AS_ERROR),
# so that a packager's build does not break on a newer compiler's warning.
add_library(rv_warnings INTERFACE)
target_compile_options(rv_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wthread-safety-beta>)
