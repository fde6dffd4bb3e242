/// What holds for every input of a fuzz target.
#ifndef RV_FUZZ_REQUIRE_H
#define RV_FUZZ_REQUIRE_H

#include <cstdio>
#include <cstdlib>

/// Ends the program, which the fuzzer reports together with the input, unless the condition holds.
inline void require(bool holds, const char* what) {
    if (!holds) {
        (void)std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

#endif
