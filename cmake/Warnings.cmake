# Warnings for our own targets. They become errors only in our presets (CMAKE_COMPILE_WARNING_AS_ERROR),
# so that a packager's build does not break on a newer compiler's warning.
#
# When it optimises, g++ 12 sees overlapping copies in std::string's operator+ with a literal in front, where there are
# none; g++ 13 does not.
add_library(rv_warnings INTERFACE)
target_compile_options(rv_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wthread-safety-beta>)
