// The poller's thread when it cannot be joined. Nothing in a run can bring that about;
// the errors are those of the manual page.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <pthread.h>

#include "support/call_seam.h"
#include "tcp_replay.h"

namespace thread_fault_test {

namespace call = support::call;

class FaultOfPthreadJoin : public testing::TestWithParam<int> {};

TEST_P(FaultOfPthreadJoin, EndsTheProcessByAbort)
{
    const auto statement = [] {
        auto replay = std::make_unique<vesk::replay_base>(
            "127.0.0.1:9", uint64_t{0}, vesk::PROTOTYPE::UDP, "");
        const support::scoped_call<call::pthread_join> hook(
            [](pthread_t, void**) { return GetParam(); });
        replay.reset();
    };
    // Compilers differ in whether the runtime still knows the exception by then.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        statement(), testing::KilledBySignal(SIGABRT),
        std::string(
            "^terminate called (without an active exception"
            "|after throwing an instance of 'std::system_error'\n  what\\(\\):  ") +
            std::strerror(GetParam()) + ")\n$");
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfPthreadJoin, testing::Values(EDEADLK, EINVAL, ESRCH));

} // namespace thread_fault_test
