// The call seam itself: that it replaces, restores and nests, from every
// thread and for calls that a library makes, and else stays out of the way.
#include <cerrno>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/call_seam.h"
#include "support/sockets.h"

namespace call_seam_test {

namespace call = support::call;
using support::socket_pair;

TEST(CallSeam, WithoutAHookACallReachesTheLibrary)
{
    const socket_pair pair;
    char byte = 0;

    EXPECT_EQ(::send(pair.near(), "x", 1, 0), 1);
    EXPECT_EQ(::read(pair.far(), &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
}

TEST(CallSeam, AHookSeesTheArgumentsAndItsResultAndErrnoReachTheCaller)
{
    int seen_fd = 0;
    size_t seen_length = 0;
    int seen_flags = 0;
    const support::scoped_call<call::send> hook(
        [&](int fd, const void*, size_t length, int flags) -> ssize_t {
            seen_fd = fd;
            seen_length = length;
            seen_flags = flags;
            errno = ENOBUFS;
            return -1;
        });

    errno = 0;
    EXPECT_EQ(::send(77, "xyz", 3, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(seen_fd, 77);
    EXPECT_EQ(seen_length, 3u);
    EXPECT_EQ(seen_flags, MSG_DONTWAIT);
}

TEST(CallSeam, AHookCanMakeTheRealCall)
{
    const socket_pair pair;
    const support::scoped_call<call::send> hook(
        [](int fd, const void*, size_t, int flags) -> ssize_t {
            return support::real<call::send>(fd, "hook", size_t{4}, flags);
        });
    char bytes[8] = {};

    EXPECT_EQ(::send(pair.near(), "x", 1, 0), 4);
    EXPECT_EQ(::read(pair.far(), bytes, sizeof bytes), 4);
    EXPECT_STREQ(bytes, "hook");
}

TEST(CallSeam, GuardsNestAndTheEndOfAGuardRestoresWhatWasBefore)
{
    const auto answer = [](int value) { return [value](int) { return value; }; };
    {
        const support::scoped_call<call::epoll_create> outer(answer(1001));
        {
            const support::scoped_call<call::epoll_create> inner(answer(1002));
            EXPECT_EQ(::epoll_create(1), 1002);
        }
        EXPECT_EQ(::epoll_create(1), 1001);
    }
    errno = 0;
    EXPECT_EQ(::epoll_create(0), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(CallSeam, AHookHoldsForOtherThreadsToo)
{
    std::atomic<bool> hooked{false};
    std::atomic<bool> stop{false};
    std::thread caller([&] {
        while (!stop.load()) {
            if (::sched_yield() == 7) {
                hooked.store(true);
            }
        }
    });
    {
        const support::scoped_call<call::sched_yield> hook([] { return 7; });
        while (!hooked.load()) {
        }
    }
    stop.store(true);
    caller.join();
    EXPECT_EQ(::sched_yield(), 0);
}

TEST(CallSeam, AGuardWaitsForTheCallsThatAreInsideItsHook)
{
    std::atomic<bool> inside{false};
    std::atomic<bool> finished{false};
    std::thread caller;
    {
        const support::scoped_call<call::sched_yield> hook([&] {
            inside.store(true);
            for (int turn = 0; turn < 1000; ++turn) {
                support::real<call::sched_yield>();
            }
            finished.store(true);
            return 0;
        });
        caller = std::thread([] { ::sched_yield(); });
        while (!inside.load()) {
        }
    }
    EXPECT_TRUE(finished.load());
    caller.join();
}

TEST(CallSeam, TheStandardLibrarysFilesComeThroughIt)
{
    int opened = 0;
    const support::scoped_call<call::fopen> hook([&](const char*, const char*) -> FILE* {
        ++opened;
        errno = EMFILE;
        return nullptr;
    });

    const std::ifstream file("/proc/self/status");
    EXPECT_FALSE(file.is_open());
    EXPECT_EQ(opened, 1);
}

TEST(CallSeam, APauseOfTheStandardLibraryComesThroughIt)
{
    long asked = 0;
    const auto note = [&](const timespec* time) {
        asked = time->tv_nsec;
        return 0;
    };
    const support::scoped_call<call::nanosleep> plain(
        [&](const timespec* time, timespec*) { return note(time); });
    const support::scoped_call<call::clock_nanosleep> with_clock(
        [&](clockid_t, int, const timespec* time, timespec*) { return note(time); });

    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(asked, 10000000);
}

TEST(CallSeam, TheCaptureLibrarysFilesComeThroughIt)
{
    std::string seen;
    const support::scoped_call<call::fopen> hook(
        [&](const char* path, const char*) -> FILE* {
            seen = path;
            errno = EMFILE;
            return nullptr;
        });
    char error[PCAP_ERRBUF_SIZE] = {};

    EXPECT_EQ(::pcap_open_offline("/nowhere/one.pcap", error), nullptr);
    EXPECT_EQ(seen, "/nowhere/one.pcap");
}

TEST(CallSeam, ACaptureLibraryCallCanBeReplaced)
{
    EXPECT_STREQ(::pcap_datalink_val_to_name(1), "EN10MB");

    const support::scoped_call<call::pcap_datalink_val_to_name> hook(
        [](int) -> const char* { return nullptr; });
    EXPECT_EQ(::pcap_datalink_val_to_name(1), nullptr);
}

TEST(CallSeam, TheNamesForLargeFilesLeadToTheSameHook)
{
    struct stat status = {};
    struct stat64 status64 = {};
    ASSERT_EQ(::stat("/", &status), 0);
    ASSERT_EQ(::stat64("/", &status64), 0);
    EXPECT_EQ(status.st_ino, status64.st_ino);

    const support::scoped_call<call::stat> hook([](const char*, struct stat*) {
        errno = ELOOP;
        return -1;
    });
    EXPECT_EQ(::stat("/", &status), -1);
    errno = 0;
    EXPECT_EQ(::stat64("/", &status64), -1);
    EXPECT_EQ(errno, ELOOP);
}

TEST(CallSeam, TheThirdArgumentOfAVariadicCallReachesTheHook)
{
    int command = 0;
    long argument = 0;
    const support::scoped_call<call::fcntl> hook([&](int, int asked, long value) {
        command = asked;
        argument = value;
        return 0;
    });

    EXPECT_EQ(::fcntl(5, F_SETFD, FD_CLOEXEC), 0);
    EXPECT_EQ(command, F_SETFD);
    EXPECT_EQ(argument, FD_CLOEXEC);
}

} // namespace call_seam_test
