// Waiting for what another thread or the kernel brings about, with a deadline
// that only a failing test ever reaches.
#pragma once

#include <chrono>

#include "support/call_seam.h"

namespace support {

template <class Condition>
bool eventually(
    Condition condition, std::chrono::seconds limit = std::chrono::seconds(60))
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        // The real call: a test may have replaced poll for the code under test.
        real<call::poll>(nullptr, nfds_t{0}, 1);
    }
    return true;
}

} // namespace support
