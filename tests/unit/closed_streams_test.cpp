// A program that starts with some of its standard streams closed: what stands in their
// place.
#include <cerrno>
#include <cstdlib>
#include <memory>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "common.h"
#include "support/call_seam.h"

namespace closed_streams_test {

namespace call = support::call;

enum state { CLOSED = 0, HELD = 1, IN_USE = 2 };

// HELD: open on the null device, and using the stream fails as if it were closed.
state state_of(int fd)
{
    struct stat status {};
    if (::fstat(fd, &status) != 0)
        return CLOSED;
    if (!S_ISCHR(status.st_mode) || status.st_rdev != makedev(1, 3))
        return IN_USE;
    char byte = 0;
    const ssize_t used =
        fd == STDIN_FILENO ? ::read(fd, &byte, 1) : ::write(fd, &byte, 1);
    return used == -1 && errno == EBADF ? HELD : IN_USE;
}

// The states of the three, as the digits of a number in base 3.
int states() { return state_of(0) + 3 * state_of(1) + 9 * state_of(2); }

bool is_closed(int streams, int fd) { return (streams >> fd & 1) != 0; }

int expected_states(int streams, state of_closed)
{
    int result = 0;
    for (const int fd : {2, 1, 0})
        result = 3 * result + (is_closed(streams, fd) ? of_closed : IN_USE);
    return result;
}

// Ends the process with what has become of its streams.
[[noreturn]] void hold_and_tell(int streams)
{
    for (const int fd : {0, 1, 2}) {
        if (is_closed(streams, fd))
            ::close(fd);
    }
    vesk::details::hold_closed_streams();
    std::_Exit(states()); // what runs at an exit may want descriptors
}

int no_more_descriptors()
{
    const rlimit none{0, 0};
    return ::setrlimit(RLIMIT_NOFILE, &none);
}

// Each bit of the parameter is a stream that is closed.
class ClosedStreams : public testing::TestWithParam<int> {
protected:
    ClosedStreams() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    // Runs in a process of its own, where `prepare` comes first.
    template <class prepare_t>
    static void expect_end(prepare_t prepare, state of_closed)
    {
        const int streams = GetParam();
        EXPECT_EXIT(
            {
                // Whatever it gives stays in force.
                [[maybe_unused]] const auto prepared = prepare();
                hold_and_tell(streams);
            },
            testing::ExitedWithCode(expected_states(streams, of_closed)), "");
    }
};

TEST_P(ClosedStreams, AndNoOthersAreHeldByTheNullDevice)
{
    expect_end([] { return 0; }, HELD);
}

TEST_P(ClosedStreams, StayClosedWhenTheSystemCannotTellThem)
{
    const auto break_poll = [] {
        return std::make_unique<support::scoped_call<call::poll>>(
            [](pollfd*, nfds_t, int) {
                errno = ENOMEM;
                return -1;
            });
    };
    expect_end(break_poll, CLOSED);
}

// EINVAL: poll() minds the limit as well.
TEST_P(ClosedStreams, StayClosedWhenTheirNumberIsAboveTheLimit)
{
    expect_end([] { return no_more_descriptors(); }, CLOSED);
}

// EMFILE, by a limit that comes behind the poll().
TEST_P(ClosedStreams, StayClosedWhenTheNullDeviceCannotBeOpened)
{
    const auto limit_behind_poll = [] {
        return std::make_unique<support::scoped_call<call::poll>>(
            [](pollfd* fds, nfds_t count, int timeout) {
                const int result = support::real<call::poll>(fds, count, timeout);
                no_more_descriptors();
                return result;
            });
    };
    expect_end(limit_behind_poll, CLOSED);
}

INSTANTIATE_TEST_SUITE_P(AnySet, ClosedStreams, testing::Range(0, 8));

} // namespace closed_streams_test
