// The poller when a call to the system or to the heap fails under it. Except for an
// interrupted wait each such failure ends the process.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "epoll.h"
#include "support/allocation_seam.h"
#include "support/call_seam.h"
#include "support/eventually.h"
#include "support/fatal.h"
#include "support/sockets.h"

namespace epoll_fault_test {

namespace call = support::call;
using support::eventually;
using testing::AnyOf;
using testing::Each;
using testing::SizeIs;
using vesk::epoll_t;
using vesk::handle_t;

class counting_handler : public vesk::i_poll_events {
public:
    void in_event() override { ++ins; }
    void out_event() override {}

    std::atomic<int> ins{0};
};

// --------------------------------------------------------------- epoll_create

class FaultOfEpollCreate : public testing::TestWithParam<int> {};

TEST_P(FaultOfEpollCreate, IsFatalWithItsText)
{
    const int error = GetParam();
    const auto create = [error] {
        const support::scoped_call<call::epoll_create> fail([error](int) {
            errno = error;
            return -1;
        });
        epoll_t poller;
    };
    EXPECT_FATAL(create(), std::strerror(error), "epoll.h");
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfEpollCreate, testing::Values(EINVAL, EMFILE, ENFILE, ENOMEM));

// --------------------------------------------------------------- epoll_ctl

struct change {
    const char* name;
    int operation;
    void (*make)(epoll_t&, handle_t, counting_handler&);
};

void PrintTo(const change& what, std::ostream* out) { *out << what.name; }

constexpr change CHANGES[] = {
    {"add_fd", EPOLL_CTL_ADD,
     [](epoll_t& poller, handle_t, counting_handler& handler) {
         poller.add_fd(0, &handler);
     }},
    {"rm_fd", EPOLL_CTL_DEL,
     [](epoll_t& poller, handle_t handle, counting_handler&) { poller.rm_fd(handle); }},
    {"set_pollin", EPOLL_CTL_MOD,
     [](epoll_t& poller, handle_t handle, counting_handler&) {
         poller.set_pollin(handle);
     }},
    {"reset_pollin", EPOLL_CTL_MOD,
     [](epoll_t& poller, handle_t handle, counting_handler&) {
         poller.reset_pollin(handle);
     }},
    {"set_pollout", EPOLL_CTL_MOD,
     [](epoll_t& poller, handle_t handle, counting_handler&) {
         poller.set_pollout(handle);
     }},
    {"reset_pollout", EPOLL_CTL_MOD,
     [](epoll_t& poller, handle_t handle, counting_handler&) {
         poller.reset_pollout(handle);
     }},
};

class FaultOfEpollCtl : public testing::TestWithParam<change> {};

TEST_P(FaultOfEpollCtl, IsFatalWithItsTextWhateverTheErrno)
{
    const change& what = GetParam();
    const auto make = [&](int error) {
        counting_handler handler;
        const support::unique_fd fd(::eventfd(0, EFD_NONBLOCK));
        epoll_t poller;
        const handle_t handle = poller.add_fd(fd.get(), &handler);
        const support::scoped_call<call::epoll_ctl> fail(
            [&](int, int operation, int, epoll_event*) {
                errno = operation == what.operation ? error : ENOTSUP;
                return -1;
            });
        what.make(poller, handle, handler);
    };
    for (const int error :
         {EBADF, EEXIST, EINVAL, ELOOP, ENOENT, ENOMEM, ENOSPC, EPERM}) {
        EXPECT_FATAL(make(error), std::strerror(error), "epoll.h");
    }
}

INSTANTIATE_TEST_SUITE_P(EveryChange, FaultOfEpollCtl, testing::ValuesIn(CHANGES));

// --------------------------------------------------------------- epoll_wait

class FaultOfEpollWait : public testing::TestWithParam<int> {};

TEST_P(FaultOfEpollWait, IsFatalWithItsText)
{
    const int error = GetParam();
    const auto wait = [error] {
        const support::scoped_call<call::epoll_wait> fail(
            [error](int, epoll_event*, int, int) {
                errno = error;
                return -1;
            });
        epoll_t poller;
        poller.start_poller("poller_thread");
        eventually([] { return false; });
    };
    EXPECT_FATAL(wait(), std::strerror(error), "epoll.h");
}

INSTANTIATE_TEST_SUITE_P(
    EveryErrorButAnInterruption, FaultOfEpollWait,
    testing::Values(EAGAIN, EBADF, EFAULT, EINVAL, ENOMEM));

TEST(EpollFault, WaitsThatAreInterruptedThousandsOfTimesLoseNoEvent)
{
    counting_handler handler;
    const support::unique_fd fd(::eventfd(1, EFD_NONBLOCK));
    std::atomic<int> interruptions{0};
    const support::scoped_call<call::epoll_wait> interrupted(
        [&](int epoll_fd, epoll_event* events, int capacity, int timeout) {
            if (++interruptions % 1000 != 0) {
                errno = EINTR;
                return -1;
            }
            return support::real<call::epoll_wait>(epoll_fd, events, capacity, timeout);
        });
    epoll_t poller;
    poller.set_pollin(poller.add_fd(fd.get(), &handler));
    poller.start_poller("poller_thread");

    EXPECT_TRUE(eventually([&] { return handler.ins >= 5; }));
    poller.stop_poller();
    EXPECT_GE(interruptions, 5000);
}

// --------------------------------------------------------------- close, the name

TEST(EpollFault, ACloseThatFailsIsNotRepeated)
{
    for (const int error : {EBADF, EINTR, EIO, ENOSPC}) {
        int epoll_fd = -1;
        int closes = 0;
        const support::scoped_call<call::epoll_create> watch(
            [&](int size) { return epoll_fd = support::real<call::epoll_create>(size); });
        const support::scoped_call<call::close> fail([&](int fd) {
            if (fd != epoll_fd)
                return support::real<call::close>(fd);
            ++closes;
            if (closes > 1)
                return 0;                   // or a loop would never end
            support::real<call::close>(fd); // the kernel closes whatever it says
            errno = error;
            return -1;
        });
        {
            epoll_t poller;
        }
        EXPECT_EQ(closes, 1) << error;
        EXPECT_FALSE(support::is_open(epoll_fd)) << error;
    }
}

// The kernel takes fifteen characters; with more pthread_setname_np gives ERANGE.
TEST(EpollFault, ANameThatTheKernelRefusesLeavesTheThreadWithItsParents)
{
    std::string own(16, '\0');
    ASSERT_EQ(::pthread_getname_np(::pthread_self(), own.data(), own.size()), 0);
    class name_reader : public counting_handler {
    public:
        void in_event() override
        {
            if (ins == 0)
                ::pthread_getname_np(::pthread_self(), name, sizeof name);
            counting_handler::in_event();
        }
        char name[16] = {};
    };
    name_reader handler;
    const support::unique_fd fd(::eventfd(1, EFD_NONBLOCK));
    epoll_t poller;
    poller.set_pollin(poller.add_fd(fd.get(), &handler));

    EXPECT_EQ(poller.start_poller("sixteen letters!"), 0);

    EXPECT_TRUE(eventually([&] { return handler.ins > 0; }));
    poller.stop_poller();
    EXPECT_STREQ(handler.name, own.c_str());
}

// --------------------------------------------------------------- out of memory

TEST(EpollFault, OutOfMemoryARegistrationIsFatal)
{
    counting_handler handler;
    const support::unique_fd fd(::eventfd(0, EFD_NONBLOCK));
    const auto ends = support::ends_of_each_failing_allocation([&](uint64_t nth) {
        epoll_t poller;
        const support::failing_allocation guard(nth);
        poller.set_pollin(poller.add_fd(fd.get(), &handler));
    });

    ASSERT_THAT(ends, SizeIs(2));
    EXPECT_EQ(ends[0].signal, SIGABRT);
    EXPECT_THAT(
        ends[0].errors, testing::MatchesRegex(support::fatal_line(
                            "FATAL ERROR: OUT OF MEMORY", "epoll.h")));
    EXPECT_EQ(ends[1].text(), "");
}

// The C library's share of a new thread's memory shows as an error of the system.
TEST(EpollFault, OutOfMemoryAStartThrowsAndCanBeTriedAgain)
{
    const auto ends = support::ends_of_each_failing_allocation([](uint64_t nth) {
        epoll_t poller;
        {
            const support::failing_allocation guard(nth);
            try {
                poller.start_poller("poller_thread");
                return;
            } catch (const std::bad_alloc&) {
            } catch (const std::system_error& error) {
                if (error.code().value() != EAGAIN)
                    throw;
            }
        }
        if (poller.start_poller("poller_thread") != 0)
            throw std::runtime_error("it counts as started");
    });

    for (const auto& end : ends)
        EXPECT_EQ(end.text(), "");
    EXPECT_THAT(ends, SizeIs(testing::Ge(2u)));
}

// Nothing catches it on that thread, so that the runtime ends the process.
TEST(EpollFault, ABadAllocOnThePollerThreadEndsTheProcessByAbort)
{
    class throwing_handler : public counting_handler {
    public:
        void in_event() override { throw std::bad_alloc(); }
    };
    const auto end = support::run_apart([] {
        throwing_handler handler;
        const support::unique_fd fd(::eventfd(1, EFD_NONBLOCK));
        epoll_t poller;
        poller.set_pollin(poller.add_fd(fd.get(), &handler));
        poller.start_poller("poller_thread");
        eventually([] { return false; });
    });

    EXPECT_EQ(end.signal, SIGABRT);
    EXPECT_EQ(
        end.errors, "terminate called after throwing an instance of 'std::bad_alloc'\n"
                    "  what():  std::bad_alloc\n");
}

} // namespace epoll_fault_test
