// Whole replays when a call to the system or to the heap fails under them. Where memory
// runs out, a replay runs in a child process, once for each allocation that it makes.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/allocation_seam.h"
#include "support/call_seam.h"
#include "support/capture_builder.h"
#include "support/fatal.h"
#include "support/replay_fixture.h"
#include "support/scanner_ends.h"
#include "support/scratch_dir.h"
#include "support/socket_trace.h"
#include "support/sockets.h"
#include "support/thrown.h"
#include "tcp_replay.h"

namespace tcp_replay_fault_test {

namespace call = support::call;
using support::process_end;
using support::sample_bytes;
using support::tcp_frame;
using support::text_thrown_by;
using testing::Ge;
using testing::SizeIs;
using vesk::PROTOTYPE;
using texts_t = std::vector<std::string>;

constexpr uint64_t NO_LIMIT = 0;

class ReplayFault : public support::replay_fixture {
protected:
    std::string save(const std::string& name, const std::string& bytes) const
    {
        support::write_file(directory_.file(name), bytes);
        return directory_.file(name);
    }

    support::scratch_dir directory_;
};

// --------------------------------------------------------------- the base

class FaultOfEventfd : public testing::TestWithParam<int> {};

TEST_P(FaultOfEventfd, IsFatal)
{
    const int error = GetParam();
    const auto construct = [error] {
        const support::scoped_call<call::eventfd> fail([=](unsigned int, int) {
            errno = error;
            return -1;
        });
        vesk::replay_base("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, "");
    };
    EXPECT_FATAL(
        construct(), "Assertion failed: wakeup_fd_ != retired_fd", "tcp_replay.h");
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfEventfd, testing::Values(EINVAL, EMFILE, ENFILE, ENODEV, ENOMEM));

struct set_up_fault {
    std::string step;
    int error;
};

void PrintTo(const set_up_fault& fault, std::ostream* out) { *out << fault.step; }

class FaultOfTcpSetUp : public testing::TestWithParam<set_up_fault> {};

TEST_P(FaultOfTcpSetUp, IsFatalWithTheCondition)
{
    const auto construct = [] {
        support::socket_trace trace;
        trace.fail(GetParam().step, GetParam().error);
        vesk::replay_base("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, "");
    };
    EXPECT_FATAL(construct(), "Assertion failed: rc != retired_fd", "tcp_replay.h");
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, FaultOfTcpSetUp,
    testing::Values(
        set_up_fault{"socket", EMFILE}, set_up_fault{"socket", EACCES},
        set_up_fault{"option SO_REUSEADDR", ENOMEM}, set_up_fault{"bind", EADDRINUSE},
        set_up_fault{"bind", EACCES}, set_up_fault{"listen", EADDRINUSE}));

class FaultOfUdpSetUp : public testing::TestWithParam<set_up_fault> {};

TEST_P(FaultOfUdpSetUp, IsFatalWithTheErrnosText)
{
    const auto construct = [] {
        support::socket_trace trace;
        trace.fail(GetParam().step, GetParam().error);
        trace.pretend("option SO_BINDTODEVICE");
        vesk::replay_base("127.0.0.1:9", NO_LIMIT, PROTOTYPE::UDP, "eth7");
    };
    EXPECT_FATAL(construct(), std::strerror(GetParam().error), "tcp_replay.h");
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, FaultOfUdpSetUp,
    testing::Values(
        set_up_fault{"socket", EMFILE}, set_up_fault{"socket", ENOBUFS},
        set_up_fault{"option IP_MULTICAST_LOOP", EPERM},
        set_up_fault{"option SO_BINDTODEVICE", ENODEV},
        set_up_fault{"option SO_BINDTODEVICE", EPERM}));

// What the wake-up descriptor gives first; after that, the truth.
struct wakeup_read {
    ssize_t result;
    int error;
};

class FaultOfTheWakeUpsRead : public ReplayFault,
                              public testing::WithParamInterface<wakeup_read> {};

TEST_P(FaultOfTheWakeUpsRead, IsTriedAgainWithTheNextEvent)
{
    const std::string path = save("file", "data");
    std::atomic<int> reads{0};
    const support::scoped_call<call::read> hook(
        [&](int fd, void* buffer, size_t length) -> ssize_t {
            // The replay's file is read whole, the wake-up by its eight bytes.
            if (length != sizeof(uint64_t) || ++reads > 3)
                return support::real<call::read>(fd, buffer, length);
            errno = GetParam().error;
            return GetParam().result;
        });
    // The poller thread runs from here on: what it is given must be settled by now.
    vesk::filereplay replay("127.0.0.1:0", path, PROTOTYPE::TCP, 1, false, NO_LIMIT, "");
    const auto receiver = support::connected_to(support::listening_port());
    std::thread reader([&] { replay.start_replay(); });

    EXPECT_EQ(support::receive_exactly(receiver.get(), 4), "data");

    vesk::s_signal_handler(SIGINT);
    reader.join();
    EXPECT_EQ(reads, 4); // a replay that took the first for a wake-up reads no more
}

INSTANTIATE_TEST_SUITE_P(
    EveryResult, FaultOfTheWakeUpsRead,
    testing::Values(
        wakeup_read{-1, EAGAIN}, wakeup_read{-1, EINTR}, wakeup_read{-1, EIO},
        wakeup_read{0, 0}, wakeup_read{4, 0}));

class FaultOfTheReplaysClose : public ReplayFault,
                               public testing::WithParamInterface<int> {};

TEST_P(FaultOfTheReplaysClose, IsNotRepeated)
{
    for (const PROTOTYPE transport : {PROTOTYPE::TCP, PROTOTYPE::UDP}) {
        auto replay = std::make_unique<vesk::replay_base>(
            transport == PROTOTYPE::TCP ? "127.0.0.1:0" : "127.0.0.1:9", NO_LIMIT,
            transport, "");
        std::vector<int> closed;
        const support::scoped_call<call::close> hook([&](int fd) {
            closed.push_back(fd);
            // The kernel closes whatever it says. A repeated call is left to succeed.
            const bool closes = support::real<call::close>(fd) == 0;
            errno = GetParam();
            return closes ? -1 : 0;
        });

        replay.reset();

        // For TCP the wake-up, the listener and the poller; for UDP socket and poller.
        EXPECT_THAT(closed, SizeIs(transport == PROTOTYPE::TCP ? 3 : 2));
        EXPECT_THAT(std::set<int>(closed.begin(), closed.end()), SizeIs(closed.size()));
    }
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfTheReplaysClose, testing::Values(EBADF, EINTR, EIO, ENOSPC));

// --------------------------------------------------------------- the path

class FaultOfTheReplaysStat : public ReplayFault,
                              public testing::WithParamInterface<int> {};

TEST_P(FaultOfTheReplaysStat, IsToldByAFileReplayWithItsErrnoAndByACaptureReplayWithout)
{
    const std::string path = save("file", "x");
    const support::scoped_call<call::stat> hook([](const char*, struct ::stat*) {
        errno = GetParam();
        return -1;
    });

    EXPECT_EQ(
        text_thrown_by([&] {
            vesk::filereplay("127.0.0.1:9", path, PROTOTYPE::UDP, 1, false, NO_LIMIT, "");
        }),
        "Cannot find file " + path + ". errno: " + std::to_string(GetParam()));
    EXPECT_EQ(
        text_thrown_by([&] {
            vesk::pcapreplay("127.0.0.1:9", path, PROTOTYPE::UDP, 1, false, NO_LIMIT, "");
        }),
        "Cannot find file ");
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfTheReplaysStat,
    testing::Values(
        EACCES, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW));

// --------------------------------------------------------------- out of memory

// Plays the receiver of a replay in the same process and stops the replay when all has
// come, or when there is something on standard error: then nothing more may come.
class stopping_receiver {
public:
    stopping_receiver(PROTOTYPE transport, texts_t expected)
        : udp_(transport == PROTOTYPE::UDP), expected_(std::move(expected))
    {
        for (const std::string& message : expected_)
            expected_bytes_ += message;
        thread_ = std::thread([this] { run(); });
    }
    ~stopping_receiver() { end(); }
    stopping_receiver(const stopping_receiver&) = delete;
    stopping_receiver& operator=(const stopping_receiver&) = delete;

    // Where the replay is to send to, or to listen.
    std::string address() const
    {
        return "127.0.0.1:" +
               std::to_string(udp_ ? support::local_port(datagrams_.get()) : 0);
    }

    // After the replay. Throws when something else came than was expected, or less of
    // it without any report.
    void check()
    {
        end();
        const bool in_order =
            udp_ ? received_.size() <= expected_.size() &&
                       std::equal(received_.begin(), received_.end(), expected_.begin())
                 : expected_bytes_.rfind(received_bytes_, 0) == 0;
        if (!in_order || (!all_came() && !errors_written()))
            throw std::runtime_error("other messages came");
    }

private:
    static bool errors_written()
    {
        struct ::stat status = {};
        return ::fstat(STDERR_FILENO, &status) == 0 && status.st_size > 0;
    }

    bool all_came() const { return received_bytes_.size() >= expected_bytes_.size(); }

    void end()
    {
        ended_ = true;
        if (thread_.joinable())
            thread_.join();
    }

    void run()
    {
        const support::unique_fd stream = udp_ ? support::unique_fd() : connect();
        while (!ended_) {
            receive_some(udp_ ? datagrams_.get() : stream.get());
            if (all_came() || errors_written())
                vesk::s_signal_handler(SIGINT);
        }
    }

    // To the replay's listener, as early as it is there.
    support::unique_fd connect()
    {
        uint16_t port = 0;
        while (!ended_ && (port = support::listening_port()) == 0)
            std::this_thread::yield();
        return ended_ ? support::unique_fd() : support::connected_to(port);
    }

    void receive_some(int fd)
    {
        if (fd == -1 || all_came() || !support::is_readable(fd, 1))
            return std::this_thread::yield();
        char buffer[65536];
        const ssize_t count = ::recv(fd, buffer, sizeof(buffer), 0);
        if (count <= 0)
            return;
        received_.emplace_back(buffer, static_cast<size_t>(count));
        received_bytes_ += received_.back();
    }

    bool udp_;
    texts_t expected_;
    std::string expected_bytes_;
    texts_t received_; // the receiving thread's, until it has ended
    std::string received_bytes_;
    std::atomic<bool> ended_{false};
    support::unique_fd datagrams_ = support::bound_socket(SOCK_DGRAM);
    std::thread thread_;
};

// Writes a line when descriptors are open at its end that were not at its start.
class descriptor_check {
public:
    descriptor_check() : before_(count()) {}
    ~descriptor_check()
    {
        if (count() != before_)
            std::cerr << "descriptors are left open\n";
    }
    descriptor_check(const descriptor_check&) = delete;
    descriptor_check& operator=(const descriptor_check&) = delete;

private:
    static long count()
    {
        using iterator = std::filesystem::directory_iterator;
        return std::distance(iterator("/proc/self/fd"), iterator());
    }
    long before_;
};

// Among the ends of a replay without memory: it ran through, or threw, or reported.
bool is_allowed_end(const process_end& end)
{
    if (end.signal == SIGABRT)
        return testing::Matches(testing::MatchesRegex(
            "FATAL ERROR: OUT OF MEMORY \\((epoll|tcp_replay)\\.h:[0-9]+\\)\n"))(
            end.errors);
    return testing::Matches(testing::MatchesRegex(
        "|threw: std::bad_alloc "
        "|threw: Resource temporarily unavailable " // a thread that cannot be had
        "|threw: Dir .*/ no files "
        "|threw: Open pcap file failed! Error message: .* "
        "|wrote: (compile|set) fileter failed! [^\n]*\n"))(end.text());
}

class ReplayOutOfMemory : public ReplayFault {
protected:
    // A whole run of the replay that `make` gives, for each allocation on the main
    // thread that can fail.
    template <class make_t, class start_t>
    std::vector<process_end> sweep(
        PROTOTYPE transport, const texts_t& expected, make_t make, start_t start)
    {
        return support::ends_of_each_failing_allocation([&](uint64_t nth) {
            const descriptor_check check;
            stopping_receiver receiver(transport, expected);
            const std::string address = receiver.address();
            {
                const support::failing_allocation guard(nth);
                const auto replay = make(address, transport);
                start(*replay);
            }
            receiver.check();
        });
    }

    std::vector<process_end> sweep_files(
        PROTOTYPE transport, const std::string& path, bool preload,
        const texts_t& expected)
    {
        return sweep(
            transport, expected,
            [&](const std::string& address, PROTOTYPE protocol) {
                return std::make_shared<vesk::filereplay>(
                    address, path, protocol, 2, preload, NO_LIMIT, "");
            },
            [](vesk::filereplay& replay) { replay.start_replay(); });
    }

    std::vector<process_end> sweep_captures(
        PROTOTYPE transport, const std::string& path, bool preload,
        const texts_t& expected)
    {
        return sweep(
            transport, expected,
            [&](const std::string& address, PROTOTYPE protocol) {
                return std::make_shared<vesk::pcapreplay>(
                    address, path, protocol, 1, preload, NO_LIMIT, "");
            },
            [](vesk::pcapreplay& replay) { replay.start_replay("tcp and port 5000"); });
    }

    static void expect_allowed(const std::vector<process_end>& ends, size_t at_least)
    {
        for (size_t i = 0; i < ends.size(); ++i)
            EXPECT_TRUE(is_allowed_end(ends[i])) << i + 1 << ": " << ends[i].text();
        EXPECT_EQ(ends.back().text(), "");
        EXPECT_THAT(ends, SizeIs(Ge(at_least)));
    }

    // The same where libpcap has a part in it.
    static void expect_allowed_of_captures(std::vector<process_end> ends)
    {
        const size_t count = ends.size();
        support::take_out_ends_by_the_scanner(ends);
        expect_allowed(ends, 36);
        EXPECT_GE(count, 40u);
    }

    // Small frames: libpcap's buffer need not grow for them.
    const texts_t payloads_{"first payload", "second payload", "third payload"};

    std::string save_capture(const std::string& name) const
    {
        std::vector<support::frame> frames;
        for (const std::string& payload : payloads_)
            frames.push_back(tcp_frame({payload}));
        return save(name, support::capture_bytes(frames));
    }

    texts_t twice(texts_t pass) const
    {
        const size_t count = pass.size();
        pass.reserve(2 * count);
        for (size_t i = 0; i < count; ++i)
            pass.push_back(pass[i]);
        return pass;
    }
};

TEST_F(ReplayOutOfMemory, AStreamedFileOverUdpEndsInAReportOrABadAllocWithoutALeak)
{
    const std::string data = sample_bytes(25000);
    const std::string path = save("a file with a long name", data);
    const auto ends = sweep_files(
        PROTOTYPE::UDP, path, false,
        twice({data.substr(0, 10240), data.substr(10240, 10240), data.substr(20480)}));
    expect_allowed(ends, 20);
}

TEST_F(ReplayOutOfMemory, AStreamedFileOverTcpEndsInAReportOrABadAllocWithoutALeak)
{
    const std::string data = sample_bytes(25000);
    const std::string path = save("a file with a long name", data);
    const auto ends = sweep_files(
        PROTOTYPE::TCP, path, false,
        twice({data.substr(0, 10240), data.substr(10240, 10240), data.substr(20480)}));
    expect_allowed(ends, 20);
}

TEST_F(ReplayOutOfMemory, APreloadedFileOverUdpEndsInAReportOrABadAllocWithoutALeak)
{
    const std::string data = sample_bytes(25000);
    const std::string path = save("a file with a long name", data);
    const auto ends = sweep_files(
        PROTOTYPE::UDP, path, true,
        twice({data.substr(20480), data.substr(10240, 10240), data.substr(0, 10240)}));
    expect_allowed(ends, 20);
}

TEST_F(ReplayOutOfMemory, ADirectoryOverUdpEndsInAReportOrABadAllocWithoutALeak)
{
    save("a file with a long name 1", "one");
    save("a file with a long name 2", "two");
    const auto ends =
        sweep_files(PROTOTYPE::UDP, directory_.path(), false, twice({"one", "two"}));
    expect_allowed(ends, 30);
}

TEST_F(ReplayOutOfMemory, AStreamedCaptureOverUdpEndsInAReportOrABadAllocWithoutALeak)
{
    const auto ends = sweep_captures(
        PROTOTYPE::UDP, save_capture("a capture with a long name"), false, payloads_);
    expect_allowed_of_captures(ends);
}

TEST_F(ReplayOutOfMemory, AStreamedCaptureOverTcpEndsInAReportOrABadAllocWithoutALeak)
{
    const auto ends = sweep_captures(
        PROTOTYPE::TCP, save_capture("a capture with a long name"), false, payloads_);
    expect_allowed_of_captures(ends);
}

TEST_F(ReplayOutOfMemory, APreloadedCaptureOverUdpEndsInAReportOrABadAllocWithoutALeak)
{
    const auto ends = sweep_captures(
        PROTOTYPE::UDP, save_capture("a capture with a long name"), true,
        {payloads_[2], payloads_[1], payloads_[0]});
    expect_allowed_of_captures(ends);
}

TEST_F(ReplayOutOfMemory, AMissingPathIsReportedOrABadAlloc)
{
    const std::string path = directory_.file("a missing file with a long name");
    const auto ends = support::ends_of_each_failing_allocation([&](uint64_t nth) {
        const descriptor_check check;
        const support::failing_allocation guard(nth);
        vesk::filereplay("127.0.0.1:9", path, PROTOTYPE::UDP, 1, false, NO_LIMIT, "");
    });
    const std::string report = "threw: Cannot find file " + path + ". errno: 2 ";
    for (size_t i = 0; i < ends.size(); ++i)
        EXPECT_TRUE(is_allowed_end(ends[i]) || ends[i].text() == report)
            << i + 1 << ": " << ends[i].text();
    EXPECT_EQ(ends.back().text(), report);
}

} // namespace tcp_replay_fault_test
