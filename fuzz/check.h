// What every fuzzing program holds its target to.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz {

// A promise that is broken ends the process, and the fuzzer keeps the input.
inline void require(bool holds, const char* promise)
{
    if (holds)
        return;
    std::fprintf(stderr, "Broken promise: %s\n", promise);
    std::fflush(stderr);
    std::abort();
}

} // namespace fuzz
