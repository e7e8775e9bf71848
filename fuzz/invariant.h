#pragma once
// Invariant checks of the fuzz bodies: a failure prints where and what to
// standard error and aborts, which libFuzzer and the replay test both report.

#include <cstdio>
#include <cstdlib>

#define KORVO_FUZZ_REQUIRE(condition)                                                          \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: fuzz invariant broken: %s\n", __FILE__, __LINE__,     \
                         #condition);                                                          \
            std::abort();                                                                      \
        }                                                                                      \
    } while (0)
