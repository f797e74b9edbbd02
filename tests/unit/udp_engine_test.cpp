// The UDP engine: its two ways of setting up a socket, one datagram per event,
// and receiving. Most tests play the poller's thread.
#include <cerrno>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/call_seam.h"
#include "support/engine_fixture.h"
#include "support/eventually.h"
#include "support/fake_clock.h"
#include "support/fatal.h"
#include "support/output_capture.h"
#include "support/socket_trace.h"
#include "support/sockets.h"
#include "tcp_engine.h"

namespace udp_engine_test {

namespace call = support::call;
using support::fake_clock;
using support::message;
using support::output_capture;
using support::pacing_record;
using support::patterned;
using support::socket_trace;
using vesk::stats;

using lines = std::vector<std::string>;

class open_udp_engine : public vesk::udp_engine {
public:
    using udp_engine::udp_engine;

    using udp_engine::add_membership;
    using udp_engine::address_;
    using udp_engine::close;
    using udp_engine::devname_;
    using udp_engine::handle_;
    using udp_engine::m_speed_;
    using udp_engine::out_address_;
    using udp_engine::out_address_len_;
    using udp_engine::poller_;
    using udp_engine::queue_;
    using udp_engine::send_enabled_;
    using udp_engine::set_udp_multicast_device;
    using udp_engine::set_udp_multicast_iface;
    using udp_engine::set_udp_multicast_loop;
    using udp_engine::set_udp_multicast_ttl;
    using udp_engine::set_udp_reuse_port;
    using udp_engine::sock_fd_;
};

const std::string LOOP_OFF = "option IP_MULTICAST_LOOP 00000000";

// The interface request for a device: 40 bytes, the first 16 of them the name.
std::string device_option(std::string name)
{
    name.resize(16, '\0');
    name.resize(40, '\0');
    return "option SO_BINDTODEVICE " + support::hex(name.data(), name.size());
}

class UdpEngine : public support::engine_fixture {
protected:
    // The engine goes first, and it must not go under a running poller.
    ~UdpEngine() override
    {
        if (poller_ != nullptr)
            poller_->stop_poller();
    }

    open_udp_engine& engine() { return *engine_; }

    // The engine under test, with a poller that does not run.
    template <class... Args>
    open_udp_engine& make(Args&&... args)
    {
        engine_ = std::make_unique<open_udp_engine>(poller_, std::forward<Args>(args)...);
        return *engine_;
    }

    // A sender whose datagrams go to `receiver_`.
    void make_sender()
    {
        make(true);
        std::string address =
            "127.0.0.1:" + std::to_string(support::local_port(receiver_.get()));
        ASSERT_EQ(engine().set_local_address(address), 0);
    }

    // A receiver on the loopback address and a free port.
    void make_receiver()
    {
        make(false);
        std::string address = "127.0.0.1:*";
        ASSERT_EQ(engine().set_local_address(address), 0);
    }

    // The calls by which an engine of this mode and device takes the address up,
    // from the first option on. The device is only pretended to be there.
    lines options_of(bool send, const std::string& device, std::string address)
    {
        make(send, device);
        socket_trace trace;
        trace.pretend("option SO_BINDTODEVICE");
        trace.pretend("option IP_ADD_MEMBERSHIP");
        EXPECT_EQ(engine().set_local_address(address), 0) << address;
        return lines(trace.lines.begin() + 4, trace.lines.end());
    }

    // The port of `receiver_`, for another socket that is willing to share it: one that
    // nobody holds might be taken by the time that it is asked for.
    uint16_t shared_port()
    {
        const int on = 1;
        EXPECT_EQ(
            ::setsockopt(receiver_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
        return support::local_port(receiver_.get());
    }

    void push(const std::string& bytes)
    {
        ASSERT_EQ(engine().push_msg_to_pipe(message(bytes)), 0);
    }

    uint32_t interest()
    {
        return static_cast<vesk::epoll_t::poll_entry_t*>(engine().handle_)->ev.events;
    }

    // Sends one datagram to the engine's own port.
    void send_to_engine(const std::string& bytes)
    {
        const auto address = support::loopback(support::local_port(engine().sock_fd_));
        ASSERT_EQ(
            support::real<call::sendto>(
                receiver_.get(), bytes.data(), bytes.size(), 0,
                support::as_sockaddr(address), socklen_t{sizeof address}),
            static_cast<ssize_t>(bytes.size()));
        ASSERT_TRUE(support::is_readable(engine().sock_fd_, 60000));
    }

    std::shared_ptr<vesk::epoll_t> poller_{std::make_shared<vesk::epoll_t>()};
    support::unique_fd receiver_{support::bound_socket(SOCK_DGRAM)};
    std::unique_ptr<open_udp_engine> engine_;
};

// The six constructors.

void expect_fresh(const open_udp_engine& engine)
{
    EXPECT_EQ(engine.sock_fd_, -1);
    EXPECT_EQ(engine.handle_, nullptr);
    EXPECT_EQ(engine.out_address_, nullptr);
    EXPECT_EQ(engine.out_address_len_, 0u);
    EXPECT_EQ(engine.m_speed_, 0u);
    EXPECT_EQ(engine.queue_, nullptr);
    EXPECT_EQ(engine.address_.bind_if(), -1);
    EXPECT_FALSE(engine.address_.is_mcast());
}

TEST_F(UdpEngine, PollerModeAndDeviceAreStored)
{
    const open_udp_engine engine(poller_, false, "eth7");
    expect_fresh(engine);
    EXPECT_EQ(engine.poller_.lock(), poller_);
    EXPECT_FALSE(engine.send_enabled_);
    EXPECT_EQ(engine.devname_, "eth7");
}

TEST_F(UdpEngine, PollerAndModeAreStored)
{
    const open_udp_engine receiver(poller_, false);
    expect_fresh(receiver);
    EXPECT_EQ(receiver.poller_.lock(), poller_);
    EXPECT_FALSE(receiver.send_enabled_);
    EXPECT_EQ(receiver.devname_, "");

    const open_udp_engine sender(poller_, true);
    EXPECT_TRUE(sender.send_enabled_);
}

TEST_F(UdpEngine, PollerAndDeviceMakeASender)
{
    const open_udp_engine engine(poller_, std::string("eth7"));
    expect_fresh(engine);
    EXPECT_EQ(engine.poller_.lock(), poller_);
    EXPECT_TRUE(engine.send_enabled_);
    EXPECT_EQ(engine.devname_, "eth7");
}

TEST_F(UdpEngine, APollerAloneMakesASender)
{
    const open_udp_engine engine{std::weak_ptr<vesk::epoll_t>(poller_)};
    expect_fresh(engine);
    EXPECT_EQ(engine.poller_.lock(), poller_);
    EXPECT_TRUE(engine.send_enabled_);
    EXPECT_EQ(engine.devname_, "");
}

TEST_F(UdpEngine, AModeAloneIsStored)
{
    const open_udp_engine engine(false);
    expect_fresh(engine);
    EXPECT_EQ(engine.poller_.lock(), nullptr);
    EXPECT_FALSE(engine.send_enabled_);
}

TEST_F(UdpEngine, NothingAtAllMakesASenderWithoutAPoller)
{
    const open_udp_engine engine;
    expect_fresh(engine);
    EXPECT_EQ(engine.poller_.lock(), nullptr);
    EXPECT_TRUE(engine.send_enabled_);
    EXPECT_EQ(engine.devname_, "");
}

TEST_F(UdpEngine, HoldsNoShareOfThePoller)
{
    const open_udp_engine engine(poller_, true);
    EXPECT_EQ(poller_.use_count(), 1);
}

// Setting up a sender.

TEST_F(UdpEngine, ASenderOpensAndRegistersItsSocketBeforeItsOptions)
{
    make(true);
    std::string address = "127.0.0.1:5000";
    const socket_trace trace;

    EXPECT_EQ(engine().set_local_address(address), 0);

    EXPECT_EQ(
        trace.lines, (lines{
                         "socket dgram udp", "get-flags",
                         "set-flags " + std::to_string(support::real<call::fcntl>(
                                            engine().sock_fd_, F_GETFL, 0L)),
                         "add none", LOOP_OFF, "change out"}));
}

TEST_F(UdpEngine, ASendersSocketDoesNotBlockAndIsKeptOnExec)
{
    make_sender();
    EXPECT_NE(::fcntl(engine().sock_fd_, F_GETFL, 0) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(engine().sock_fd_, F_GETFD, 0), 0);
}

TEST_F(UdpEngine, AUnicastSenderOnlySwitchesTheLoopOff)
{
    EXPECT_EQ(options_of(true, "", "127.0.0.1:5000"), (lines{LOOP_OFF, "change out"}));
}

TEST_F(UdpEngine, AUnicastSenderIsTiedToItsDeviceOnce)
{
    EXPECT_EQ(
        options_of(true, "eth7", "127.0.0.1:5000"),
        (lines{LOOP_OFF, device_option("eth7"), "change out"}));
}

TEST_F(UdpEngine, AMulticastSenderChoosesNeitherInterfaceNorTimeToLive)
{
    EXPECT_EQ(options_of(true, "", "239.1.1.1:5000"), (lines{LOOP_OFF, "change out"}));
}

TEST_F(UdpEngine, AMulticastSenderIsTiedToItsDeviceTwice)
{
    EXPECT_EQ(
        options_of(true, "eth7", "239.1.1.1:5000"),
        (lines{LOOP_OFF, device_option("eth7"), device_option("eth7"), "change out"}));
}

TEST_F(UdpEngine, TheMulticastBlockIs224To239)
{
    const lines once = {LOOP_OFF, device_option("e"), "change out"};
    const lines twice = {LOOP_OFF, device_option("e"), device_option("e"), "change out"};
    EXPECT_EQ(options_of(true, "e", "223.255.255.255:1"), once);
    EXPECT_EQ(options_of(true, "e", "224.0.0.0:1"), twice);
    EXPECT_EQ(options_of(true, "e", "239.255.255.255:1"), twice);
    EXPECT_EQ(options_of(true, "e", "240.0.0.1:1"), once);
}

TEST_F(UdpEngine, ADeviceNameIsCutAfter16Bytes)
{
    EXPECT_EQ(
        options_of(true, "abcdefghijklmnop", "127.0.0.1:5000")[1],
        "option SO_BINDTODEVICE 6162636465666768696a6b6c6d6e6f70" + std::string(48, '0'));
    EXPECT_EQ(
        options_of(true, "abcdefghijklmnopqrst", "127.0.0.1:5000")[1],
        "option SO_BINDTODEVICE 6162636465666768696a6b6c6d6e6f70" + std::string(48, '0'));
}

TEST_F(UdpEngine, ASendersSocketIsNeitherBoundNorConnected)
{
    make_sender();
    EXPECT_EQ(support::local_port(engine().sock_fd_), 0);
    sockaddr_in peer = {};
    socklen_t length = sizeof peer;
    EXPECT_EQ(
        ::getpeername(engine().sock_fd_, reinterpret_cast<sockaddr*>(&peer), &length),
        -1);
}

TEST_F(UdpEngine, MulticastLoopIsReallyOffAndTimeToLiveTheSystems)
{
    make(true);
    std::string address = "239.1.1.1:5000";
    ASSERT_EQ(engine().set_local_address(address), 0);
    const auto option = [&](int name) {
        int value = -1;
        socklen_t length = sizeof value;
        EXPECT_EQ(::getsockopt(engine().sock_fd_, IPPROTO_IP, name, &value, &length), 0);
        return value;
    };
    EXPECT_EQ(option(IP_MULTICAST_LOOP), 0);
    EXPECT_EQ(option(IP_MULTICAST_TTL), 1);
}

TEST_F(UdpEngine, TheTargetIsTheDestinationOfEveryDatagram)
{
    make(true);
    std::string address = "239.1.2.3:4660";
    ASSERT_EQ(engine().set_local_address(address), 0);
    EXPECT_EQ(engine().out_address_len_, 16u);
    EXPECT_EQ(
        support::hex(engine().out_address_, 16), "02001234ef0102030000000000000000");
}

TEST_F(UdpEngine, TheQueueHolds1024MessagesAtOnce)
{
    make_sender();
    const auto msg = message("x");
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(engine().push_msg_to_pipe(msg), 0);
    EXPECT_EQ(engine().push_msg_to_pipe(msg), -1);
}

TEST_F(UdpEngine, TheQueueIsThereBeforeThePollerMayLookForIt)
{
    for (const bool send : {true, false}) {
        make(send);
        bool there = false;
        const support::scoped_call<call::epoll_ctl> hook(
            [&](int epoll_fd, int operation, int fd, epoll_event* event) {
                if (operation == EPOLL_CTL_MOD)
                    there = engine().queue_ != nullptr;
                return support::real<call::epoll_ctl>(epoll_fd, operation, fd, event);
            });
        std::string address = "127.0.0.1:0";
        ASSERT_EQ(engine().set_local_address(address), 0);
        EXPECT_TRUE(there);
    }
}

TEST_F(UdpEngine, ANewAddressBringsANewQueueAndDropsTheOld)
{
    make_sender();
    push("dropped");
    const std::weak_ptr<vesk::queue_ptr::element_type> old_queue = engine().queue_;
    const support::unique_fd old_socket(engine().sock_fd_);
    std::string address = "127.0.0.1:5000";

    ASSERT_EQ(engine().set_local_address(address), 0);

    EXPECT_TRUE(old_queue.expired());
    EXPECT_TRUE(engine().queue_->isEmpty());
}

TEST_F(UdpEngine, WithoutAPollerASenderIsSetUpAllTheSame)
{
    poller_.reset();
    make(true);
    std::string address = "127.0.0.1:5000";
    const socket_trace trace;

    EXPECT_EQ(engine().set_local_address(address), 0);

    EXPECT_EQ(trace.lines.size(), 4u);
    EXPECT_EQ(trace.lines.back(), LOOP_OFF);
    EXPECT_EQ(engine().handle_, nullptr);
    EXPECT_NE(engine().queue_, nullptr);
}

// Setting up a receiver.

TEST_F(UdpEngine, AUnicastReceiverBindsItsAddress)
{
    EXPECT_EQ(
        options_of(false, "", "127.0.0.1:0"),
        (lines{"option SO_REUSEADDR 01000000", "bind 127.0.0.1:0", "change in"}));
}

TEST_F(UdpEngine, AMulticastReceiverSharesThePortBindsTheWildcardAndJoins)
{
    const auto port = std::to_string(shared_port());
    EXPECT_EQ(
        options_of(false, "", "239.1.2.3:" + port),
        (lines{
            "option SO_REUSEADDR 01000000", "option SO_REUSEPORT 01000000",
            "bind 0.0.0.0:" + port, "option IP_ADD_MEMBERSHIP ef01020300000000",
            "change in"}));
}

TEST_F(UdpEngine, AReceiverMayNameEveryAddressAndAnyPort)
{
    EXPECT_EQ(
        options_of(false, "", "*:*"),
        (lines{"option SO_REUSEADDR 01000000", "bind 0.0.0.0:0", "change in"}));
}

TEST_F(UdpEngine, AReceiverIsNotTiedToItsDevice)
{
    EXPECT_EQ(
        options_of(false, "eth7", "127.0.0.1:0"),
        (lines{"option SO_REUSEADDR 01000000", "bind 127.0.0.1:0", "change in"}));
}

TEST_F(UdpEngine, AReceiverHasAQueueAndNoDestination)
{
    make_receiver();
    EXPECT_NE(engine().queue_, nullptr);
    EXPECT_EQ(engine().out_address_, nullptr);
    EXPECT_EQ(interest(), uint32_t{EPOLLIN});
}

TEST_F(UdpEngine, AGroupThatCannotBeJoinedIsNoFailure)
{
    make(false);
    std::string address = "239.1.2.3:0";
    socket_trace trace;
    trace.fail("option IP_ADD_MEMBERSHIP", ENODEV);

    EXPECT_EQ(engine().set_local_address(address), 0);

    EXPECT_NE(engine().sock_fd_, -1);
    EXPECT_EQ(trace.lines.back(), "change in");
}

// Failing to set up.

TEST_F(UdpEngine, AnAddressThatDoesNotResolveOpensNoSocket)
{
    const std::vector<std::pair<bool, std::string>> refused = {
        {true, "127.0.0.1:*"},      {true, "*:*"},
        {true, "127.0.0.1"},        {true, "127.0.0.1:65536"},
        {false, "127.0.0.1:65536"}, {false, "*"},
        {false, "127.0.0.1:"},
    };
    for (auto [send, address] : refused) {
        make(send);
        const socket_trace trace;
        errno = 0;
        EXPECT_EQ(engine().set_local_address(address), -1) << address;
        EXPECT_EQ(errno, EINVAL) << address;
        EXPECT_EQ(trace.lines, lines()) << address;
        EXPECT_EQ(engine().queue_, nullptr) << address;
    }
}

TEST_F(UdpEngine, ASocketThatCannotBeOpenedIsReported)
{
    make(true);
    std::string address = "127.0.0.1:5000";
    socket_trace trace;
    trace.fail("socket", ENFILE);

    errno = 0;
    EXPECT_EQ(engine().set_local_address(address), -1);

    EXPECT_EQ(errno, ENFILE);
    EXPECT_EQ(engine().sock_fd_, -1);
    EXPECT_EQ(trace.lines, (lines{"socket dgram udp"}));
}

TEST_F(UdpEngine, ASocketThatCannotBeUnblockedIsUsedAsItIs)
{
    make(true);
    std::string address = "127.0.0.1:5000";
    socket_trace trace;
    trace.fail("get-flags", EBADF);
    trace.fail("set-flags", EPERM);

    EXPECT_EQ(engine().set_local_address(address), 0);
    EXPECT_EQ(trace.lines.back(), "change out");
}

struct failing_step {
    bool send;
    std::string address;
    std::string step; // the call that fails
    int error;
    size_t calls; // those made until then and after, the close included
};

TEST_F(UdpEngine, AFailingStepClosesTheSocketAndKeepsItsErrnoAndTheRegistration)
{
    // All options of a group are tried, whatever the first of them gave.
    const std::vector<failing_step> steps = {
        {true, "127.0.0.1:5000", "option IP_MULTICAST_LOOP", EPERM, 7},
        {true, "127.0.0.1:5000", "option SO_BINDTODEVICE", ENODEV, 7},
        {true, "239.1.1.1:5000", "option IP_MULTICAST_LOOP", EPERM, 8},
        {true, "239.1.1.1:5000", "option SO_BINDTODEVICE", EPERM, 8},
        {false, "127.0.0.1:0", "option SO_REUSEADDR", EPERM, 6},
        {false, "127.0.0.1:0", "bind", EADDRINUSE, 7},
        {false, "239.1.1.1:0", "option SO_REUSEADDR", EPERM, 7},
        {false, "239.1.1.1:0", "option SO_REUSEPORT", EPERM, 7},
        {false, "239.1.1.1:0", "bind", EACCES, 8},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.address + " " + step.step);
        make(step.send, "eth7");
        std::string address = step.address;
        socket_trace trace;
        trace.fail(step.step, step.error);
        trace.pretend("option SO_BINDTODEVICE");

        errno = 0;
        EXPECT_EQ(engine().set_local_address(address), -1);

        EXPECT_EQ(errno, step.error);
        EXPECT_EQ(engine().sock_fd_, -1);
        EXPECT_NE(engine().handle_, nullptr);
        EXPECT_EQ(engine().queue_, nullptr);
        EXPECT_EQ(trace.lines[3], "add none");
        EXPECT_EQ(trace.lines.back(), "close");
        EXPECT_EQ(trace.lines.size(), step.calls);
        EXPECT_EQ(interest(), 0u);
    }
}

TEST_F(UdpEngine, OnlyTheSecondTieToTheDeviceMayFail)
{
    make(true, "eth7");
    std::string address = "239.1.1.1:5000";
    int ties = 0;
    const support::scoped_call<call::setsockopt> hook(
        [&](int fd, int level, int option, const void* value, socklen_t length) {
            if (option != SO_BINDTODEVICE)
                return support::real<call::setsockopt>(fd, level, option, value, length);
            errno = EPERM;
            return ++ties == 2 ? -1 : 0;
        });

    errno = 0;
    EXPECT_EQ(engine().set_local_address(address), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(engine().sock_fd_, -1);
}

TEST_F(UdpEngine, ADeviceThatDoesNotExistIsReported)
{
    make(true, "no-such-device");
    std::string address = "127.0.0.1:5000";
    errno = 0;
    EXPECT_EQ(engine().set_local_address(address), -1);
    // Kernels before 5.7 ask for the privilege before they look for the device.
    EXPECT_TRUE(errno == ENODEV || errno == EPERM) << errno;
    EXPECT_EQ(engine().sock_fd_, -1);
}

// Single options.

TEST_F(UdpEngine, TheOptionRoutinesSetWhatTheyAreToldAndReturnTheResult)
{
    make(true);
    socket_trace trace;
    trace.pretend("option");
    EXPECT_EQ(engine().set_udp_multicast_loop(7, false), 0);
    EXPECT_EQ(engine().set_udp_multicast_loop(7, true), 0);
    EXPECT_EQ(engine().set_udp_multicast_ttl(7, 3), 0);
    EXPECT_EQ(engine().set_udp_reuse_port(7, true), 0);
    EXPECT_EQ(engine().set_udp_reuse_port(7, false), 0);
    EXPECT_EQ(
        trace.lines,
        (lines{
            "option IP_MULTICAST_LOOP 00000000", "option IP_MULTICAST_LOOP 01000000",
            "option IP_MULTICAST_TTL 03000000", "option SO_REUSEPORT 01000000",
            "option SO_REUSEPORT 01000000"}));

    trace.fail("option", ENOPROTOOPT);
    EXPECT_EQ(engine().set_udp_multicast_loop(7, false), -1);
    EXPECT_EQ(engine().set_udp_multicast_ttl(7, 3), -1);
    EXPECT_EQ(engine().set_udp_reuse_port(7, true), -1);
    EXPECT_EQ(engine().set_udp_multicast_device(7, "eth7"), -1);
    EXPECT_EQ(engine().add_membership(7), -1);
}

TEST_F(UdpEngine, TheInterfaceIsOnlySetForAnAddressOfOnesOwn)
{
    std::string address = "127.1.2.3:5000";
    make(true);
    ASSERT_EQ(engine().address_.resolve(address, false), 0);
    socket_trace trace;
    trace.pretend("option");
    EXPECT_EQ(engine().set_udp_multicast_iface(7), 0);
    EXPECT_EQ(trace.lines, lines());

    ASSERT_EQ(engine().address_.resolve(address, true), 0);
    EXPECT_EQ(engine().set_udp_multicast_iface(7), 0);
    EXPECT_EQ(trace.lines, (lines{"option IP_MULTICAST_IF 7f010203"}));

    trace.fail("option", EADDRNOTAVAIL);
    EXPECT_EQ(engine().set_udp_multicast_iface(7), -1);
}

// Sending.

TEST_F(UdpEngine, WithNothingQueuedNothingIsSentAndTheWriteInterestStays)
{
    make_sender();
    int calls = 0;
    const support::scoped_call<call::sendto> hook(
        [&](int, const void*, size_t, int, const sockaddr*, socklen_t) -> ssize_t {
            return ++calls;
        });
    const socket_trace trace;
    const output_capture output;

    engine().out_event();

    EXPECT_EQ(calls, 0);
    EXPECT_EQ(trace.lines, lines());
    EXPECT_EQ(interest(), uint32_t{EPOLLOUT});
    EXPECT_EQ(output.text(), "");
}

TEST_F(UdpEngine, AnEventSendsOneMessageAsOneDatagram)
{
    make_sender();
    push("first");
    push("second");
    const output_capture output;

    engine().out_event();
    EXPECT_EQ(support::receive_datagram(receiver_.get()), "first");
    EXPECT_FALSE(support::is_readable(receiver_.get()));

    engine().out_event();
    EXPECT_EQ(support::receive_datagram(receiver_.get()), "second");
    EXPECT_EQ(output.text(), "");
}

TEST_F(UdpEngine, ADatagramGoesToTheTargetWithoutFlags)
{
    make_sender();
    push("abc");
    std::string destination;
    size_t length_given = 0;
    int flags_given = -1;
    const support::scoped_call<call::sendto> hook([&](int, const void*, size_t length,
                                                      int flags, const sockaddr* to,
                                                      socklen_t to_length) {
        destination = support::hex(to, to_length);
        length_given = length;
        flags_given = flags;
        return static_cast<ssize_t>(length);
    });

    engine().out_event();

    const auto target = support::loopback(support::local_port(receiver_.get()));
    EXPECT_EQ(destination, support::hex(&target, 16));
    EXPECT_EQ(length_given, 3u);
    EXPECT_EQ(flags_given, 0);
}

TEST_F(UdpEngine, AMessageOfFullSizeIsOneDatagram)
{
    make_sender();
    const std::string bytes = patterned(vesk::MAX_BUFFER_SIZE);
    push(bytes);
    engine().out_event();
    EXPECT_EQ(support::receive_datagram(receiver_.get()), bytes);
}

TEST_F(UdpEngine, AnEmptyMessageIsAnEmptyDatagram)
{
    make_sender();
    push("");
    const output_capture output;

    engine().out_event();

    ASSERT_TRUE(support::is_readable(receiver_.get(), 60000));
    char byte = 0;
    EXPECT_EQ(::recv(receiver_.get(), &byte, 1, 0), 0);
    EXPECT_EQ(output.text(), "");
}

// The first sendto fails with this errno; everything else is real.
class failing_sendto {
public:
    explicit failing_sendto(int error)
        : hook_(
              [error](
                  int, const void*, size_t, int, const sockaddr*, socklen_t) -> ssize_t {
                  errno = error;
                  return -1;
              })
    {}

private:
    support::scoped_call<call::sendto> hook_;
};

TEST_F(UdpEngine, AnErrorDropsTheMessageAndEndsTheWriteInterest)
{
    make_sender();
    push("lost");
    push("kept");
    const failing_sendto hook(ECONNREFUSED);
    const socket_trace trace;
    const output_capture output;

    engine().out_event();

    EXPECT_EQ(output.unflushed_text(), "socket error\n");
    EXPECT_EQ(trace.lines, (lines{"change none"}));
    EXPECT_EQ(interest(), 0u);
    EXPECT_EQ(engine().queue_->sizeGuess(), 1u);
    EXPECT_NE(engine().sock_fd_, -1);
}

TEST_F(UdpEngine, ADestinationThatTheKernelRefusesIsASocketError)
{
    make(true);
    std::string address = "*:5000"; // all ones: broadcasting was never allowed
    ASSERT_EQ(engine().set_local_address(address), 0);
    push("lost");
    const output_capture output;

    engine().out_event();

    EXPECT_EQ(output.text(), "socket error\n");
    EXPECT_EQ(interest(), 0u);
}

TEST_F(UdpEngine, AnErrorWithoutAPollerIsStillTold)
{
    make_sender();
    push("lost");
    poller_.reset();
    const failing_sendto hook(EPERM);
    const output_capture output;

    engine().out_event();

    EXPECT_EQ(output.text(), "socket error\n");
}

TEST_F(UdpEngine, WithoutRoomTheRetryFindsNoDestinationAndSendingStops)
{
    for (const int error : {EAGAIN, EINTR}) {
        make_sender();
        push("01234");
        push("kept");
        int retry_error = 0;
        const support::scoped_call<call::send> watch(
            [&](int fd, const void* data, size_t length, int flags) {
                const ssize_t n = support::real<call::send>(fd, data, length, flags);
                retry_error = n == -1 ? errno : 0;
                return n;
            });
        const failing_sendto hook(error);
        const output_capture output;

        engine().out_event();

        EXPECT_EQ(
            output.unflushed_text(),
            "Warning: unable to send all data, already send len: 0\n"
            "Using poll wait to send 5 bytes.\n"
            "socket error\n");
        EXPECT_EQ(retry_error, EDESTADDRREQ);
        EXPECT_EQ(interest(), 0u);
        EXPECT_EQ(engine().queue_->sizeGuess(), 1u);
        EXPECT_FALSE(support::is_readable(receiver_.get()));
    }
}

TEST_F(UdpEngine, WithoutRoomEvenASuccessfulRetryIsAnError)
{
    make_sender();
    push("01234");
    const support::scoped_call<call::send> retry(
        [](int, const void*, size_t length, int) {
            return static_cast<ssize_t>(length);
        });
    const failing_sendto hook(EAGAIN);
    const output_capture output;

    engine().out_event();

    EXPECT_EQ(
        output.text(), "Warning: unable to send all data, already send len: 0\n"
                       "Using poll wait to send 5 bytes.\n"
                       "socket error\n");
    EXPECT_EQ(interest(), 0u);
}

class short_sendto {
private:
    support::scoped_call<call::sendto> hook_{[](int, const void*, size_t, int,
                                                const sockaddr*,
                                                socklen_t) { return ssize_t{3}; }};
};

TEST_F(UdpEngine, AShortCountIsFinishedByAPlainSend)
{
    make_sender();
    push("01234");
    std::string rest;
    const support::scoped_call<call::send> retry(
        [&](int, const void* data, size_t length, int) {
            rest.assign(static_cast<const char*>(data), length);
            return static_cast<ssize_t>(length);
        });
    const short_sendto hook;
    const output_capture output;

    engine().out_event();

    EXPECT_EQ(
        output.text(), "Warning: unable to send all data, already send len: 3\n"
                       "Using poll wait to send 2 bytes.\n");
    EXPECT_EQ(rest, "34");
    EXPECT_EQ(interest(), uint32_t{EPOLLOUT});
}

TEST_F(UdpEngine, AShortCountEndsInAnErrorOnTheRealSocket)
{
    make_sender();
    push("01234");
    const short_sendto hook;
    const output_capture output;

    engine().out_event();

    EXPECT_EQ(
        output.text(), "Warning: unable to send all data, already send len: 3\n"
                       "Using poll wait to send 2 bytes.\n"
                       "socket error\n");
    EXPECT_EQ(interest(), 0u);
}

// Debug dump and pacing of what is sent.

TEST_F(UdpEngine, InDebugModeASentMessageIsDumped)
{
    make_sender();
    const auto number = support::next_dump_number();
    push("AB\xff");
    g_debug_mode = 1;
    const output_capture output;

    engine().out_event();

    EXPECT_EQ(
        output.unflushed_text(), support::dump_block(number, 3, "41 42 ffffffff \n"));
}

TEST_F(UdpEngine, AMessageThatFailedIsNeitherDumpedNorCounted)
{
    for (const int error : {EPERM, EAGAIN}) {
        make_sender();
        engine().set_speed(1000000);
        push("AB");
        g_debug_mode = 1;
        const failing_sendto hook(error);
        const output_capture output;

        engine().out_event();

        EXPECT_EQ(output.text().find("seq: "), std::string::npos);
        EXPECT_EQ(stats.bytes_sent, 0u);
        EXPECT_EQ(stats.end_time.tv_sec, 0);
    }
}

TEST_F(UdpEngine, WithoutARateTheRecordStaysAndNoClockIsLookedAt)
{
    make_sender();
    push("abc");
    const auto before = pacing_record();
    const fake_clock clock(1000000000);

    engine().out_event();

    EXPECT_EQ(support::receive_datagram(receiver_.get()), "abc");
    EXPECT_EQ(pacing_record(), before);
    EXPECT_EQ(clock.readings, 0);
}

TEST_F(UdpEngine, TheSecondDatagramLeavesWhenAllBytesAreDue)
{
    make_sender();
    engine().set_speed(1000000);
    push(patterned(1250));
    push(patterned(1250));
    const fake_clock clock(1000000000);

    engine().out_event();
    EXPECT_EQ(clock.yields, 0);
    engine().out_event();

    EXPECT_EQ(clock.yields, 20000);
    EXPECT_EQ(
        pacing_record(), "start 1000s 0us, end 1000s 20000us, sent 2500, nap 0s "
                         "20000000ns, skip 0, first 0, top 0");
}

// Receiving.

TEST_F(UdpEngine, InDebugModeAReceivedDatagramIsDumped)
{
    make_receiver();
    const auto number = support::next_dump_number();
    g_debug_mode = 1;
    send_to_engine("12345678");
    const output_capture output;

    engine().in_event();

    EXPECT_EQ(
        output.unflushed_text(),
        support::dump_block(number, 8, "31 32 33 34 35 36 37 38 \n\n"));
}

TEST_F(UdpEngine, WithoutDebugModeAReceivedDatagramIsOnlyTakenIn)
{
    make_receiver();
    send_to_engine("12345678");
    const output_capture output;

    engine().in_event();

    EXPECT_EQ(output.text(), "");
    EXPECT_FALSE(support::is_readable(engine().sock_fd_));
}

TEST_F(UdpEngine, AnEventTakesInOneDatagram)
{
    make_receiver();
    const auto number = support::next_dump_number();
    g_debug_mode = 1;
    send_to_engine("A");
    send_to_engine("B");
    const output_capture output;

    engine().in_event();
    EXPECT_EQ(output.text(), support::dump_block(number, 1, "41 \n"));
    EXPECT_TRUE(support::is_readable(engine().sock_fd_, 60000));
}

TEST_F(UdpEngine, OfALongDatagram1024BytesAreLookedAt)
{
    make_receiver();
    const auto number = support::next_dump_number();
    g_debug_mode = 1;
    send_to_engine(std::string(1025, 'A'));
    const output_capture output;

    engine().in_event();

    std::string groups;
    for (int line = 0; line < 128; ++line)
        groups += "41 41 41 41 41 41 41 41 \n";
    EXPECT_EQ(output.text(), support::dump_block(number, 1024, groups + "\n"));
    EXPECT_FALSE(support::is_readable(engine().sock_fd_));
}

TEST_F(UdpEngine, ReceivingAsksFor1024BytesAndAnAddressOf16)
{
    make_receiver();
    std::vector<size_t> asked;
    const support::scoped_call<call::recvfrom> hook([&](int fd, void*, size_t length,
                                                        int flags, sockaddr* from,
                                                        socklen_t* from_length) {
        EXPECT_EQ(fd, engine().sock_fd_);
        EXPECT_NE(from, nullptr);
        asked = {length, static_cast<size_t>(flags), *from_length};
        return ssize_t{0};
    });

    engine().in_event();

    EXPECT_EQ(asked, (std::vector<size_t>{1024, 0, 16}));
}

TEST_F(UdpEngine, ErrorsAndEmptyDatagramsAreIgnored)
{
    make_receiver();
    g_debug_mode = 1;
    const output_capture output;

    engine().in_event(); // nothing there: EAGAIN
    send_to_engine("");
    engine().in_event();

    EXPECT_EQ(output.text(), "");
    EXPECT_FALSE(support::is_readable(engine().sock_fd_));
}

// The engine joins where the routes point; here that is put on the loopback
// device, so that the test needs no route and reaches no network.
TEST_F(UdpEngine, AMulticastReceiverReallyReceives)
{
    const in_addr loopback_device = {htonl(INADDR_LOOPBACK)};
    const auto port = shared_port();
    std::string address = "239.1.2.3:" + std::to_string(port);
    make(false);
    {
        const support::scoped_call<call::setsockopt> join_there([&](int fd, int level,
                                                                    int option,
                                                                    const void* value,
                                                                    socklen_t length) {
            if (level != IPPROTO_IP || option != IP_ADD_MEMBERSHIP)
                return support::real<call::setsockopt>(fd, level, option, value, length);
            ip_mreq request = *static_cast<const ip_mreq*>(value);
            request.imr_interface = loopback_device;
            return support::real<call::setsockopt>(fd, level, option, &request, length);
        });
        ASSERT_EQ(engine().set_local_address(address), 0);
    }
    const auto number = support::next_dump_number();
    g_debug_mode = 1;
    const output_capture output;
    ASSERT_EQ(poller_->start_poller("poller_thread"), 0);

    ASSERT_EQ(
        ::setsockopt(
            receiver_.get(), IPPROTO_IP, IP_MULTICAST_IF, &loopback_device,
            sizeof loopback_device),
        0);
    sockaddr_in group = support::loopback(port);
    ASSERT_EQ(::inet_pton(AF_INET, "239.1.2.3", &group.sin_addr), 1);
    ASSERT_EQ(
        ::sendto(receiver_.get(), "AB", 2, 0, support::as_sockaddr(group), sizeof group),
        2);

    const auto expected = support::dump_block(number, 2, "41 42 \n");
    EXPECT_TRUE(support::eventually(
        [&] { return output.unflushed_text().size() >= expected.size(); }));
    poller_->stop_poller();
    EXPECT_EQ(output.text(), expected);
}

TEST_F(UdpEngine, AUnicastReceiverIsCalledByThePollerThread)
{
    make_receiver();
    const auto number = support::next_dump_number();
    g_debug_mode = 1;
    const output_capture output;
    const auto target = support::loopback(support::local_port(engine().sock_fd_));
    ASSERT_EQ(poller_->start_poller("poller_thread"), 0);

    ASSERT_EQ(
        ::sendto(
            receiver_.get(), "AB", 2, 0, support::as_sockaddr(target), sizeof target),
        2);

    const auto expected = support::dump_block(number, 2, "41 42 \n");
    EXPECT_TRUE(support::eventually(
        [&] { return output.unflushed_text().size() >= expected.size(); }));
    poller_->stop_poller();
    EXPECT_EQ(output.text(), expected);
}

// The end.

TEST_F(UdpEngine, CloseClosesTheSocketOnce)
{
    make_sender();
    const int fd = engine().sock_fd_;
    const socket_trace trace;
    engine().close();
    engine().close();
    EXPECT_EQ(trace.lines, (lines{"close"}));
    EXPECT_EQ(engine().sock_fd_, -1);
    EXPECT_FALSE(support::is_open(fd));
}

TEST_F(UdpEngine, TheEndClosesTheSocketAndLeavesTheRegistration)
{
    make_sender();
    const int fd = engine().sock_fd_;
    const std::weak_ptr<vesk::queue_ptr::element_type> queue = engine().queue_;
    const socket_trace trace;

    engine_.reset();

    EXPECT_EQ(trace.lines, (lines{"close"}));
    EXPECT_FALSE(support::is_open(fd));
    EXPECT_TRUE(queue.expired());
}

TEST_F(UdpEngine, AnEngineWithoutAnAddressEndsWithoutACall)
{
    make(true);
    const socket_trace trace;
    engine_.reset();
    EXPECT_EQ(trace.lines, lines());
}

TEST_F(UdpEngine, AllDatagramsArriveInOrderFromThePollerThread)
{
    ASSERT_EQ(poller_->start_poller("poller_thread"), 0);
    make_sender();
    for (int i = 0; i < 500; ++i) {
        const std::string bytes = std::to_string(i) + patterned(static_cast<size_t>(i));
        auto msg = message(bytes);
        while (engine().sendto(std::move(msg)) != 0) {
        }
        ASSERT_EQ(support::receive_datagram(receiver_.get()), bytes);
    }
    poller_->stop_poller();
}

// Fatal checks. Each statement runs in a process of its own.

TEST(UdpEngineDeathTest, SendingWithoutASocketIsFatal)
{
    const auto statement = [] {
        open_udp_engine engine(true);
        engine.out_event();
    };
    EXPECT_FATAL(statement(), "Assertion failed: sock_fd_ != retired_fd", "tcp_engine.h");
}

TEST(UdpEngineDeathTest, ARegistrationThatFailsIsFatal)
{
    const auto statement = [] {
        const auto poller = std::make_shared<vesk::epoll_t>();
        open_udp_engine engine(poller, true);
        std::string address = "127.0.0.1:5000";
        socket_trace trace;
        trace.fail("add", ENOSPC);
        engine.set_local_address(address);
    };
    EXPECT_FATAL(statement(), "No space left on device", "epoll.h");
}

} // namespace udp_engine_test
