// What the replays' tests share: a clean start for the process-wide state that the
// replays work on, and none of it left to the next test of the same process.
#pragma once

#include <gtest/gtest.h>

#include "tcp_replay.h"

namespace support {

class replay_fixture : public testing::Test {
protected:
    replay_fixture() { reset_globals(); }
    ~replay_fixture() override { reset_globals(); }

    static void reset_globals()
    {
        vesk::stats = vesk::replay_stats{};
        __atomic_store_n(&vesk::keep_running_, true, __ATOMIC_RELAXED);
        g_debug_mode = 0;
    }
};

} // namespace support
