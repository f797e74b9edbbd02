// The replays: how the base wires a run together and takes it apart, what the
// two sources load and send, and the run flag with its signals.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "support/call_seam.h"
#include "support/capture_builder.h"
#include "support/eventually.h"
#include "support/fatal.h"
#include "support/output_capture.h"
#include "support/replay_fixture.h"
#include "support/scratch_dir.h"
#include "support/sockets.h"
#include "support/threads.h"
#include "support/thrown.h"
#include "tcp_replay.h"

namespace tcp_replay_test {

namespace call = support::call;
using support::eventually;
using support::sample_bytes;
using support::tcp_frame;
using support::text_thrown_by;
using support::udp_frame;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using vesk::data_t;
using vesk::dataBuffer;
using vesk::PROTOTYPE;
using texts_t = std::vector<std::string>;

constexpr uint64_t NO_LIMIT = 0;
// Sending there needs SO_BROADCAST, so the kernel refuses the first datagram;
// the engine then sends no more and its queue fills.
constexpr char REFUSED_DESTINATION[] = "255.255.255.255:9";

data_t make_message(const std::string& text)
{
    auto message = std::make_shared<dataBuffer>();
    message->length = text.copy(message->buf, sizeof(message->buf));
    return message;
}

texts_t texts_of(const std::vector<data_t>& messages)
{
    texts_t texts;
    for (const data_t& message : messages)
        texts.emplace_back(message->buf, message->length);
    return texts;
}

bool poller_threads_end(std::chrono::seconds limit = std::chrono::seconds(60))
{
    return support::has_threads_named(0, "poller_thread", limit);
}

long open_descriptors()
{
    using iterator = std::filesystem::directory_iterator;
    return std::distance(iterator("/proc/self/fd"), iterator());
}

uint16_t listening_port()
{
    const uint16_t port = support::listening_port();
    EXPECT_NE(port, 0) << "nothing listens";
    return port;
}

// Opens a replay's fields to the tests.
template <class Replay>
class opened : public Replay {
public:
    using Replay::Replay;

    using Replay::devname_;
    using Replay::engine_;
    using Replay::handle_;
    using Replay::poller_;
    using Replay::protocol_;
    using Replay::wakeup_fd_;

    bool connected()
    {
        return std::atomic_ref<bool>(this->is_connected_).load(std::memory_order_acquire);
    }
};

class opened_base : public opened<vesk::replay_base> {
public:
    using opened::opened;
};

template <class Source>
class opened_source : public opened<Source> {
public:
    using opened<Source>::opened;

    using Source::filename_v_;
    using Source::in_filename_;
    using Source::loopback_;
    using Source::msg_v_;
    using Source::preload_;
};

using file_source = opened_source<vesk::filereplay>;
using capture_source = opened_source<vesk::pcapreplay>;

// Runs something on a reading thread of its own until it returns. A stop that
// comes too early is forgotten by design, so stopping asks until it is heard.
class reading_thread {
public:
    template <class Action>
    explicit reading_thread(Action action)
        : thread_([this, action] {
              action();
              ended_ = true;
          })
    {}
    ~reading_thread() { stop(); }
    reading_thread(reading_thread&) = delete;
    reading_thread& operator=(reading_thread&) = delete;

    bool ended() const { return ended_; }

    // Waits until the thread has used 50 ms of processor time more, or ended. It
    // spins when it has nothing to do, so what it had to do is done by then.
    void let_it_spin()
    {
        const auto goal = processor_time() + std::chrono::milliseconds(50);
        EXPECT_TRUE(eventually([&] { return ended() || processor_time() >= goal; }));
    }

    void stop()
    {
        EXPECT_TRUE(eventually([this] {
            vesk::s_signal_handler(SIGINT);
            return ended();
        }));
        if (thread_.joinable())
            thread_.join();
    }

private:
    std::chrono::nanoseconds processor_time()
    {
        clockid_t clock = 0;
        timespec time = {};
        if (::pthread_getcpuclockid(thread_.native_handle(), &clock) != 0)
            return {};
        ::clock_gettime(clock, &time); // 0 when the thread has just ended
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    }

    std::atomic<bool> ended_{false};
    std::thread thread_;
};

class ReplayTest : public support::replay_fixture {
protected:
    std::string udp_address() const
    {
        return "127.0.0.1:" + std::to_string(support::local_port(receiver_.get()));
    }

    texts_t receive(size_t count) const
    {
        texts_t datagrams;
        while (datagrams.size() < count) {
            datagrams.push_back(support::receive_datagram(receiver_.get()));
            if (datagrams.back().empty())
                break; // none came
        }
        return datagrams;
    }

    std::string save(const std::string& name, const std::string& bytes) const
    {
        support::write_file(directory_.file(name), bytes);
        return directory_.file(name);
    }

    std::string save_capture(
        const std::string& name, const std::vector<support::frame>& frames,
        const support::capture_format& format = {}) const
    {
        return save(name, support::capture_bytes(frames, format));
    }

    support::unique_fd receiver_ = support::bound_socket(SOCK_DGRAM);
    support::scratch_dir directory_;
    support::output_capture output_;
};

// ---------------------------------------------------------------- the base

class ReplayBase : public ReplayTest {};

TEST_F(ReplayBase, AUdpReplayIsConnectedAtOnceAndHasNoWakeUpDescriptor)
{
    opened_base replay(udp_address(), NO_LIMIT, PROTOTYPE::UDP, "");

    EXPECT_TRUE(replay.connected());
    EXPECT_EQ(replay.wakeup_fd_, vesk::retired_fd);
    EXPECT_EQ(replay.handle_, nullptr);
}

TEST_F(ReplayBase, AUdpReplaySendsRightAfterConstruction)
{
    opened_base replay(udp_address(), NO_LIMIT, PROTOTYPE::UDP, "");

    EXPECT_TRUE(replay.replay_internal(make_message("first")));
    EXPECT_TRUE(replay.replay_internal(make_message("second")));
    EXPECT_THAT(receive(2), ElementsAre("first", "second"));
}

TEST_F(ReplayBase, ATcpReplayTakesNoMessageBeforeAReceiverComes)
{
    opened_base replay("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, "");

    EXPECT_FALSE(replay.connected());
    errno = 0;
    EXPECT_EQ(replay.engine_->sendto(make_message("early")), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ReplayBase, AReceiverConnectsATcpReplay)
{
    opened_base replay("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, "");
    const support::unique_fd receiver = support::connected_to(listening_port());

    ASSERT_TRUE(eventually([&] { return replay.connected(); }));
    EXPECT_TRUE(replay.replay_internal(make_message("hello")));
    EXPECT_EQ(support::receive_exactly(receiver.get(), 5), "hello");
}

TEST_F(ReplayBase, TheWakeUpDescriptorIsNonBlockingAndClosedOnExec)
{
    opened_base replay("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, "");

    EXPECT_NE(::fcntl(replay.wakeup_fd_, F_GETFL, 0) & O_NONBLOCK, 0);
    EXPECT_NE(::fcntl(replay.wakeup_fd_, F_GETFD, 0) & FD_CLOEXEC, 0);
}

TEST_F(ReplayBase, ReadinessWithNothingToReadConnectsNothingAndKeepsTheRegistration)
{
    opened_base replay("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, "");

    replay.in_event();
    EXPECT_FALSE(replay.connected());

    const uint64_t one = 1;
    ASSERT_EQ(::write(replay.wakeup_fd_, &one, sizeof(one)), 8);
    EXPECT_TRUE(eventually([&] { return replay.connected(); }));
}

TEST_F(ReplayBase, TheWakeUpDescriptorIsServedOnce)
{
    opened_base replay("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, "");
    const support::unique_fd first = support::connected_to(listening_port());
    ASSERT_TRUE(eventually([&] { return replay.connected(); }));

    const uint64_t one = 1;
    ASSERT_EQ(::write(replay.wakeup_fd_, &one, sizeof(one)), 8);
    // The first message may leave in a batch of events that is older than the write,
    // the second ahead of the wake-up in the same batch, but not the third.
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(replay.replay_internal(make_message("x")));
        EXPECT_EQ(support::receive_exactly(first.get(), 1), "x");
    }
    EXPECT_TRUE(support::is_readable(replay.wakeup_fd_));
}

TEST_F(ReplayBase, ASpeedSwitchesPacingOn)
{
    const opened_base replay(udp_address(), 8000000, PROTOTYPE::UDP, "");
    EXPECT_FALSE(vesk::stats.top_speed);
}

TEST_F(ReplayBase, ASpeedOfZeroLeavesPacingOff)
{
    const opened_base replay(udp_address(), NO_LIMIT, PROTOTYPE::UDP, "");
    EXPECT_TRUE(vesk::stats.top_speed);
}

TEST_F(ReplayBase, WritabilityOfTheWakeUpDescriptorDoesNothing)
{
    opened_base replay("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, "");
    replay.out_event();
    EXPECT_FALSE(replay.connected());
}

// Teardown.

TEST_F(ReplayBase, DestructionJoinsThePollerThreadOfEitherTransport)
{
    for (const PROTOTYPE protocol : {PROTOTYPE::TCP, PROTOTYPE::UDP}) {
        const std::string address =
            protocol == PROTOTYPE::TCP ? "127.0.0.1:0" : udp_address();
        {
            const opened_base replay(address, NO_LIMIT, protocol, "");
            EXPECT_TRUE(support::has_threads_named(1, "poller_thread"));
        }
        EXPECT_TRUE(poller_threads_end());
    }
}

TEST_F(ReplayBase, DestructionClosesEveryDescriptor)
{
    const long before = open_descriptors();
    {
        opened_base replay("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, "");
        const support::unique_fd receiver = support::connected_to(listening_port());
        ASSERT_TRUE(eventually([&] { return replay.connected(); }));
    }
    {
        const opened_base replay(udp_address(), NO_LIMIT, PROTOTYPE::UDP, "");
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(ReplayBase, ThePollerThreadHasEndedWhenTheWakeUpDescriptorIsClosed)
{
    std::atomic<int> wakeup_fd{-1};
    bool closed = false;
    bool ended_before = false;
    const support::scoped_call<call::close> watch([&](int fd) {
        if (fd == wakeup_fd) {
            closed = true;
            ended_before = poller_threads_end(std::chrono::seconds(20));
        }
        return support::real<call::close>(fd);
    });
    {
        const opened_base replay("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, "");
        wakeup_fd = replay.wakeup_fd_;
    }
    EXPECT_TRUE(closed);
    EXPECT_TRUE(ended_before);
}

TEST_F(ReplayBase, TheWakeUpRegistrationCanBeTakenBackMoreThanOnce)
{
    opened_base replay("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, "");
    const int wakeup_fd = replay.wakeup_fd_;

    replay.process_term();
    replay.process_term();

    EXPECT_EQ(replay.handle_, nullptr);
    EXPECT_EQ(replay.wakeup_fd_, vesk::retired_fd);
    EXPECT_FALSE(support::is_open(wakeup_fd));
}

// Failures.

TEST_F(ReplayBase, AnUnknownProtocolThrowsAndJoinsThePollerThread)
{
    const long before = open_descriptors();
    EXPECT_EQ(
        text_thrown_by(
            [] { opened_base("127.0.0.1:0", NO_LIMIT, PROTOTYPE::UNKNOWN, ""); }),
        "Unknown protocol.");
    EXPECT_TRUE(poller_threads_end());
    EXPECT_EQ(open_descriptors(), before);
}

TEST(ReplayBaseDeathTest, ATcpAddressThatCannotBeUsedIsFatal)
{
    EXPECT_FATAL(
        opened_base("127.0.0.1", NO_LIMIT, PROTOTYPE::TCP, ""),
        "Assertion failed: rc != retired_fd", "tcp_replay.h");
}

TEST(ReplayBaseDeathTest, AUdpAddressThatCannotBeUsedIsFatalWithItsErrno)
{
    EXPECT_FATAL(
        opened_base("127.0.0.1:*", NO_LIMIT, PROTOTYPE::UDP, ""), "Invalid argument",
        "tcp_replay.h");
}

TEST(ReplayBaseDeathTest, TheDeviceNameReachesTheUdpEngine)
{
    EXPECT_FATAL(
        opened_base("127.0.0.1:9", NO_LIMIT, PROTOTYPE::UDP, "nosuchdevice0"),
        "No such device", "tcp_replay.h");
}

TEST_F(ReplayBase, ATcpReplayLeavesTheDeviceNameAlone)
{
    const opened_base replay("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, "nosuchdevice0");
    EXPECT_EQ(replay.devname_, "nosuchdevice0");
}

TEST(ReplayBaseDeathTest, AWakeUpDescriptorThatCannotBeCreatedIsFatal)
{
    const support::scoped_call<call::eventfd> fail([](unsigned int, int) {
        errno = EMFILE;
        return -1;
    });
    EXPECT_FATAL(
        opened_base("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, ""),
        "Assertion failed: wakeup_fd_ != retired_fd", "tcp_replay.h");
}

TEST(ReplayBaseDeathTest, AWakeUpWithoutADescriptorIsFatal)
{
    EXPECT_FATAL(
        opened_base("127.0.0.1:9", NO_LIMIT, PROTOTYPE::UDP, "").in_event(),
        "Assertion failed: wakeup_fd_ != retired_fd", "tcp_replay.h");
}

// Handing messages over.

TEST_F(ReplayBase, AnAcceptedRvalueIsTakenOver)
{
    opened_base replay(udp_address(), NO_LIMIT, PROTOTYPE::UDP, "");
    data_t message = make_message("x");

    EXPECT_TRUE(replay.replay_internal(std::move(message)));
    EXPECT_EQ(message, nullptr);
}

TEST_F(ReplayBase, AnAcceptedLvalueStaysWithItsCaller)
{
    opened_base replay(udp_address(), NO_LIMIT, PROTOTYPE::UDP, "");
    data_t message = make_message("x");

    EXPECT_TRUE(replay.replay_internal(message));
    EXPECT_TRUE(replay.replay_internal(message));
    EXPECT_NE(message, nullptr);
    EXPECT_THAT(receive(2), ElementsAre("x", "x"));
}

TEST_F(ReplayBase, NothingIsOfferedOnceTheRunIsStopped)
{
    opened_base replay(udp_address(), NO_LIMIT, PROTOTYPE::UDP, "");
    vesk::s_signal_handler(SIGINT);
    data_t message = make_message("late");

    EXPECT_FALSE(replay.replay_internal(std::move(message)));
    EXPECT_NE(message, nullptr);
}

TEST_F(ReplayBase, AStopEndsTheSpinOnAFullQueueAndTheMessageStaysWithItsCaller)
{
    opened_base replay(REFUSED_DESTINATION, NO_LIMIT, PROTOTYPE::UDP, "");
    std::atomic<int> accepted{0};
    data_t message;
    reading_thread reader([&] {
        do {
            message = make_message("x");
            ++accepted;
        } while (replay.replay_internal(std::move(message)));
    });

    // 1024 fit into the queue and one was lost with the refused send: the next
    // one spins.
    EXPECT_TRUE(eventually([&] { return accepted == 1026; }));
    EXPECT_FALSE(reader.ended());
    reader.stop();
    EXPECT_NE(message, nullptr);
    EXPECT_TRUE(eventually([&] { return output_.text() == "socket error\n"; }));
}

TEST_F(ReplayBase, AStopEndsTheSpinOnAMissingQueue)
{
    opened_base replay("127.0.0.1:0", NO_LIMIT, PROTOTYPE::TCP, "");
    data_t message = make_message("x");
    bool accepted = true;
    reading_thread reader([&] { accepted = replay.replay_internal(std::move(message)); });

    reader.stop();
    EXPECT_FALSE(accepted);
    EXPECT_NE(message, nullptr);
}

// ------------------------------------------------------------- data files

class FileReplay : public ReplayTest {
protected:
    file_source make(
        const std::string& path, uint32_t passes = 1, bool preload = false) const
    {
        return file_source(
            udp_address(), path, PROTOTYPE::UDP, passes, preload, NO_LIMIT, "");
    }

    std::string text_thrown_for(const std::string& path) const
    {
        return text_thrown_by([&] { make(path); });
    }
};

TEST_F(FileReplay, AMissingPathIsNamedWithItsErrno)
{
    const std::string path = directory_.file("missing");
    EXPECT_EQ(text_thrown_for(path), "Cannot find file " + path + ". errno: 2");
}

TEST_F(FileReplay, APathThroughAFileIsNamedWithItsErrno)
{
    const std::string path = save("file", "x") + "/below";
    EXPECT_EQ(text_thrown_for(path), "Cannot find file " + path + ". errno: 20");
}

TEST_F(FileReplay, ADirectoryWithoutRegularFilesIsNamedWithItsSlash)
{
    std::filesystem::create_directory(directory_.file("below"));
    EXPECT_EQ(
        text_thrown_for(directory_.path()), "No files in dir " + directory_.path() + "/");
}

TEST_F(FileReplay, ACharacterDeviceIsNotSupported)
{
    EXPECT_EQ(text_thrown_for("/dev/null"), "Not support file type.");
}

TEST_F(FileReplay, APipeIsNotSupported)
{
    ASSERT_EQ(::mkfifo(directory_.file("pipe").c_str(), 0600), 0);
    EXPECT_EQ(text_thrown_for(directory_.file("pipe")), "Not support file type.");
}

TEST(FileReplayDeathTest, TheEndpointIsOpenedBeforeThePathIsLookedAt)
{
    EXPECT_FATAL(
        file_source("127.0.0.1", "/missing", PROTOTYPE::TCP, 1, false, NO_LIMIT, ""),
        "Assertion failed: rc != retired_fd", "tcp_replay.h");
}

TEST_F(FileReplay, ARefusedPathJoinsThePollerThread)
{
    text_thrown_for("/dev/null");
    EXPECT_TRUE(poller_threads_end());
}

TEST_F(FileReplay, ASingleFileIsTheOnlyOneOfAPass)
{
    const std::string path = save("file", "x");
    const file_source replay = make(path);
    EXPECT_EQ(replay.in_filename_, path);
    EXPECT_THAT(replay.filename_v_, ElementsAre(path));
}

TEST_F(FileReplay, ADirectorysFilesAreListedInVersionOrder)
{
    for (const char* name : {"d10", "d2", "d1"})
        save(name, "x");
    const file_source replay = make(directory_.path());
    EXPECT_EQ(replay.in_filename_, "");
    EXPECT_THAT(
        replay.filename_v_,
        ElementsAre(
            directory_.file("d1"), directory_.file("d2"), directory_.file("d10")));
}

TEST_F(FileReplay, PreloadKeepsTheMessagesInFileOrder)
{
    const std::string data = sample_bytes(25000);
    const file_source replay = make(save("file", data), 1, true);
    EXPECT_THAT(
        texts_of(replay.msg_v_),
        ElementsAre(
            data.substr(0, 10240), data.substr(10240, 10240), data.substr(20480)));
}

TEST_F(FileReplay, PreloadingWholeMessagesLeavesNoEmptyOne)
{
    EXPECT_THAT(make(save("file", sample_bytes(20480)), 1, true).msg_v_, SizeIs(2));
}

TEST_F(FileReplay, PreloadingAnEmptyFileLoadsNothing)
{
    EXPECT_THAT(make(save("file", ""), 1, true).msg_v_, IsEmpty());
}

TEST_F(FileReplay, WithoutPreloadNothingIsLoaded)
{
    EXPECT_THAT(make(save("file", "x")).msg_v_, IsEmpty());
}

TEST_F(FileReplay, ADirectoryOfOneFileIsPreloaded)
{
    save("only", "x");
    EXPECT_THAT(texts_of(make(directory_.path(), 1, true).msg_v_), ElementsAre("x"));
}

TEST_F(FileReplay, ADirectoryOfTwoFilesIsNotPreloadedAndSendsNothing)
{
    save("one", "x");
    save("two", "y");
    file_source replay = make(directory_.path(), 1000, true);
    EXPECT_TRUE(replay.preload_);
    EXPECT_THAT(replay.msg_v_, IsEmpty());

    reading_thread reader([&] { replay.start_replay(); });
    reader.let_it_spin();
    reader.stop();
    EXPECT_FALSE(support::is_readable(receiver_.get()));
    EXPECT_EQ(replay.loopback_, 0U); // the passes count all the same
}

TEST_F(FileReplay, AFileIsSentInItsOrder)
{
    const std::string data = sample_bytes(25000);
    file_source replay = make(save("file", data));
    reading_thread reader([&] { replay.start_replay(); });
    EXPECT_THAT(
        receive(3),
        ElementsAre(
            data.substr(0, 10240), data.substr(10240, 10240), data.substr(20480)));
}

TEST_F(FileReplay, APreloadedFileIsSentFromItsLastMessageToItsFirstOnEveryPass)
{
    const std::string data = sample_bytes(15000);
    file_source replay = make(save("file", data), 2, true);
    reading_thread reader([&] { replay.start_replay(); });
    EXPECT_THAT(
        receive(4), ElementsAre(
                        data.substr(10240), data.substr(0, 10240), data.substr(10240),
                        data.substr(0, 10240)));
}

TEST_F(FileReplay, AnEmptyFileInADirectorySendsNothingAndDoesNotEndThePass)
{
    save("1", "one");
    save("2", "");
    save("3", "three");
    file_source replay = make(directory_.path(), 2);
    reading_thread reader([&] { replay.start_replay(); });
    EXPECT_THAT(receive(4), ElementsAre("one", "three", "one", "three"));
}

TEST_F(FileReplay, AfterItsPassesTheRunIsHeldUntilItIsStopped)
{
    file_source replay = make(save("file", "x"), 3);
    reading_thread reader([&] { replay.start_replay(); });

    EXPECT_THAT(receive(3), ElementsAre("x", "x", "x"));
    reader.let_it_spin();
    EXPECT_FALSE(reader.ended());
    reader.stop();
    EXPECT_FALSE(support::is_readable(receiver_.get()));
    EXPECT_EQ(replay.loopback_, 0U);
}

TEST_F(FileReplay, ZeroPassesWrapAroundToAsGoodAsNoEnd)
{
    file_source replay = make(save("file", ""), 0);
    reading_thread reader([&] { replay.start_replay(); });
    reader.let_it_spin();
    reader.stop();
    EXPECT_GT(replay.loopback_, 4000000000U);
    EXPECT_LT(replay.loopback_, 4294967295U);
}

TEST_F(FileReplay, AStopRequestedBeforeTheStartIsForgotten)
{
    file_source replay = make(save("file", "x"));
    vesk::s_signal_handler(SIGTERM);
    reading_thread reader([&] { replay.start_replay(); });
    EXPECT_THAT(receive(1), ElementsAre("x"));
}

TEST_F(FileReplay, AStopOnAFullQueueEndsTheReplayAndCountsThePass)
{
    // 1100 messages: more than the queue holds.
    const std::string path = save("file", "");
    std::filesystem::resize_file(path, 1100 * 10240);
    file_source replay(REFUSED_DESTINATION, path, PROTOTYPE::UDP, 5, false, NO_LIMIT, "");
    reading_thread reader([&] { replay.start_replay(); });

    reader.let_it_spin();
    EXPECT_FALSE(reader.ended());
    EXPECT_TRUE(eventually([&] { return output_.text() == "socket error\n"; }));
    reader.stop();
    EXPECT_EQ(replay.loopback_, 4U);
}

TEST_F(FileReplay, AFileThatHasGoneByItsTurnIsNamedWithItsErrno)
{
    const std::string path = save("file", "x");
    file_source replay = make(path);
    std::filesystem::remove(path);
    EXPECT_EQ(
        text_thrown_by([&] { replay.start_replay(); }),
        "Failed opening file " + path + " for reading. errno: 2");
}

TEST_F(FileReplay, TheListOfNamesIsReplayedOnceInItsOrderOverTcp)
{
    file_source replay("127.0.0.1:0", {save("z", "first "), save("a", "second")});
    EXPECT_EQ(replay.protocol_, PROTOTYPE::TCP);
    EXPECT_EQ(replay.loopback_, 1U);
    EXPECT_FALSE(replay.preload_);
    EXPECT_EQ(replay.devname_, "");
    EXPECT_TRUE(vesk::stats.top_speed);

    const support::unique_fd receiver = support::connected_to(listening_port());
    reading_thread reader([&] { replay.start_replay(); });
    EXPECT_EQ(support::receive_exactly(receiver.get(), 12), "first second");
    reader.let_it_spin();
    EXPECT_FALSE(support::is_readable(receiver.get()));
    reader.stop();
    EXPECT_EQ(replay.loopback_, 0U);
}

TEST_F(FileReplay, TheReadingThreadWaitsForATcpReceiver)
{
    file_source replay("127.0.0.1:0", {save("file", "data")});
    reading_thread reader([&] { replay.start_replay(); });
    EXPECT_FALSE(replay.connected());

    const support::unique_fd receiver = support::connected_to(listening_port());
    EXPECT_EQ(support::receive_exactly(receiver.get(), 4), "data");
}

TEST_F(FileReplay, AStopEndsTheWaitForATcpReceiver)
{
    file_source replay("127.0.0.1:0", {save("file", "data")});
    reading_thread reader([&] { replay.start_replay(); });
    reader.stop();
    EXPECT_EQ(replay.loopback_, 1U); // no pass was begun
}

// --------------------------------------------------------------- captures

class CaptureReplay : public ReplayTest {
protected:
    capture_source make(
        const std::string& path, uint32_t passes = 1, bool preload = false) const
    {
        return capture_source(
            udp_address(), path, PROTOTYPE::UDP, passes, preload, NO_LIMIT, "");
    }

    std::string text_thrown_for(const std::string& path, bool preload = false) const
    {
        return text_thrown_by([&] { make(path, 1, preload); });
    }

    static std::string description(const std::string& path)
    {
        return "reading from file: " + path +
               ", link-type EN10MB Ethernet, snapshot lengthL: 262144\n";
    }
};

TEST_F(CaptureReplay, AMissingPathIsReportedWithoutItsNameAndErrno)
{
    EXPECT_EQ(text_thrown_for(directory_.file("missing")), "Cannot find file ");
}

TEST_F(CaptureReplay, ADirectoryWithoutRegularFilesIsNamedWithItsSlash)
{
    EXPECT_EQ(
        text_thrown_for(directory_.path()), "No files in dir " + directory_.path() + "/");
}

TEST_F(CaptureReplay, ACharacterDeviceIsNotSupported)
{
    EXPECT_EQ(text_thrown_for("/dev/null"), "Not support file type.");
}

TEST_F(CaptureReplay, PreloadKeepsTcpPayloadsInCaptureOrderWithoutTheEmptyOnes)
{
    const std::string path = save_capture(
        "a", {tcp_frame({.payload = "A"}), tcp_frame({}), udp_frame({.payload = "udp"}),
              tcp_frame({.payload = "B", .tcp_options = "\1\1\1\1"}),
              tcp_frame({.payload = "C"})});
    const capture_source replay = make(path, 1, true);
    EXPECT_THAT(texts_of(replay.msg_v_), ElementsAre("A", "B", "C"));
    EXPECT_EQ(output_.text(), description(path));
}

TEST_F(CaptureReplay, PreloadReusesTheBufferOfAnEmptyPayloadAsAnEmptyOne)
{
    const std::string path = save_capture(
        "a", {tcp_frame({}), tcp_frame({.payload = "B"}), tcp_frame({}), tcp_frame({})});
    EXPECT_THAT(texts_of(make(path, 1, true).msg_v_), ElementsAre("B"));
}

TEST_F(CaptureReplay, PreloadingUdpFramesLoadsNothing)
{
    const std::string path = save_capture("a", {udp_frame({.payload = "udp"})});
    EXPECT_THAT(make(path, 1, true).msg_v_, IsEmpty());
}

TEST_F(CaptureReplay, ADirectoryOfTwoCapturesIsNotPreloaded)
{
    save_capture("a", {tcp_frame({.payload = "A"})});
    save_capture("b", {tcp_frame({.payload = "B"})});
    const capture_source replay = make(directory_.path(), 1, true);
    EXPECT_THAT(replay.msg_v_, IsEmpty());
    EXPECT_TRUE(replay.preload_);
    EXPECT_EQ(output_.text(), "");
}

TEST_F(CaptureReplay, APreloadWhoseFilterDoesNotCompileIsReadUnfiltered)
{
    // libpcap cannot filter this link type by transport.
    const std::string path = save_capture(
        "a", {tcp_frame({.payload = "A"}), tcp_frame({.payload = "B"})},
        {.link_type = 147});
    testing::internal::CaptureStderr();
    const capture_source replay = make(path, 1, true);
    const std::string errors = testing::internal::GetCapturedStderr();

    EXPECT_THAT(texts_of(replay.msg_v_), ElementsAre("A", "B"));
    EXPECT_THAT(errors, testing::StartsWith("compile fileter failed! "));
}

TEST_F(CaptureReplay, APreloadOfAnInvalidFrameThrows)
{
    const std::string path = save_capture(
        "a", {support::with_lengths(tcp_frame({.payload = "A"}), 55, 262145)});
    EXPECT_EQ(
        text_thrown_for(path, true), "safe_pcap_next ERROR: Invalid packet length.");
    EXPECT_TRUE(poller_threads_end());
}

TEST_F(CaptureReplay, APreloadOfAFileThatIsNoCaptureThrows)
{
    EXPECT_THAT(
        text_thrown_for(save("a", "no capture"), true),
        testing::StartsWith("Open pcap file failed! Error message: "));
}

TEST_F(CaptureReplay, WithoutPreloadAFileThatIsNoCaptureThrowsAtItsTurn)
{
    capture_source replay = make(save("a", "no capture"));
    EXPECT_THAT(
        text_thrown_by([&] { replay.start_replay("udp"); }),
        testing::StartsWith("Open pcap file failed! Error message: "));
}

TEST_F(CaptureReplay, AnUnusableFilterTextThrowsFromTheReplay)
{
    const std::string path = save_capture("a", {});
    EXPECT_EQ(
        text_thrown_by([&] { make(path).start_replay(""); }), "filter condition error!");
    EXPECT_EQ(
        text_thrown_by([&] { make(path).start_replay("port 1"); }),
        "Please specify the protocol type: tcp or udp!");
}

TEST_F(CaptureReplay, PayloadsAreSentInCaptureOrderWithoutTheEmptyOnes)
{
    const std::string path = save_capture(
        "a",
        {udp_frame({.payload = "one"}), udp_frame({}), udp_frame({.payload = "two"})});
    capture_source replay = make(path);
    reading_thread reader([&] { replay.start_replay("udp"); });
    EXPECT_THAT(receive(2), ElementsAre("one", "two"));
}

TEST_F(CaptureReplay, EveryPassOpensAndDescribesTheCaptureAnew)
{
    const std::string path = save_capture("a", {udp_frame({.payload = "x"})});
    capture_source replay = make(path, 3);
    reading_thread reader([&] { replay.start_replay(" udp\n"); });

    EXPECT_THAT(receive(3), ElementsAre("x", "x", "x"));
    reader.let_it_spin();
    EXPECT_FALSE(reader.ended());
    EXPECT_EQ(output_.text(), description(path) + description(path) + description(path));
}

TEST_F(CaptureReplay, APreloadedCaptureIsSentFromItsLastPayloadToItsFirstOnEveryPass)
{
    const std::string path = save_capture(
        "a", {tcp_frame({.payload = "A"}), tcp_frame({.payload = "B"}),
              tcp_frame({.payload = "C"})});
    capture_source replay = make(path, 2, true);
    reading_thread reader([&] { replay.start_replay("udp and port 1"); });
    EXPECT_THAT(receive(6), ElementsAre("C", "B", "A", "C", "B", "A"));
}

TEST_F(CaptureReplay, ACaptureWhoseFilterDoesNotCompileIsSkipped)
{
    save_capture("1", {udp_frame({.payload = "one"})});
    save_capture("2", {udp_frame({.payload = "two"})}, {.link_type = 147});
    save_capture("3", {udp_frame({.payload = "three"})});
    capture_source replay = make(directory_.path(), 2);
    testing::internal::CaptureStderr();
    {
        reading_thread reader([&] { replay.start_replay("udp"); });
        EXPECT_THAT(receive(4), ElementsAre("one", "three", "one", "three"));
    }
    const std::string line =
        "compile fileter failed! DLT 147 link-layer type filtering not implemented\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line + line);
}

TEST_F(CaptureReplay, AnInvalidFrameEndsTheReplayByItsException)
{
    const std::string path = save_capture(
        "a", {udp_frame({.payload = "good"}),
              support::with_lengths(udp_frame({.payload = "bad"}), 45, 0)});
    capture_source replay = make(path);
    EXPECT_EQ(
        text_thrown_by([&] { replay.start_replay("udp"); }),
        "safe_pcap_next ERROR: Invalid packet length.");
    EXPECT_THAT(receive(1), ElementsAre("good"));
}

TEST_F(CaptureReplay, APayloadBeyondAMessageIsSentInPieces)
{
    const std::string payload = sample_bytes(10300);
    const std::string path = save_capture("a", {udp_frame({.payload = payload})});
    testing::internal::CaptureStderr();
    capture_source replay = make(path);
    {
        reading_thread reader([&] { replay.start_replay("udp"); });
        EXPECT_THAT(
            receive(2), ElementsAre(payload.substr(0, 10240), payload.substr(10240)));
    }
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        path + ": 0 frame(s) shorter than their headers, 1 payload(s) longer than 10240 "
               "bytes\n");
}

TEST_F(CaptureReplay, AStopOnAFullQueueEndsTheReplayAndCountsThePass)
{
    const std::vector<support::frame> frames(1100, udp_frame({.payload = "x"}));
    capture_source replay(
        REFUSED_DESTINATION, save_capture("a", frames), PROTOTYPE::UDP, 5, false,
        NO_LIMIT, "");
    reading_thread reader([&] { replay.start_replay("udp"); });

    reader.let_it_spin();
    EXPECT_FALSE(reader.ended());
    reader.stop();
    EXPECT_EQ(replay.loopback_, 4U);
}

TEST_F(CaptureReplay, AStopRequestedBeforeTheStartIsForgotten)
{
    capture_source replay = make(save_capture("a", {udp_frame({.payload = "x"})}));
    vesk::s_signal_handler(SIGTERM);
    reading_thread reader([&] { replay.start_replay("udp"); });
    EXPECT_THAT(receive(1), ElementsAre("x"));
}

TEST_F(CaptureReplay, TheTwoArgumentFormReplaysOnceOverTcp)
{
    const std::string path = save_capture("a", {tcp_frame({.payload = "payload"})});
    capture_source replay("127.0.0.1:0", path);
    EXPECT_EQ(replay.protocol_, PROTOTYPE::TCP);
    EXPECT_EQ(replay.loopback_, 1U);
    EXPECT_FALSE(replay.preload_);
    EXPECT_EQ(replay.devname_, "");
    EXPECT_TRUE(vesk::stats.top_speed);

    const support::unique_fd receiver = support::connected_to(listening_port());
    reading_thread reader([&] { replay.start_replay("tcp"); });
    EXPECT_EQ(support::receive_exactly(receiver.get(), 7), "payload");
}

// ---------------------------------------------------------------- signals

class Signals : public ReplayTest {
protected:
    Signals()
    {
        struct sigaction plain = {};
        plain.sa_handler = SIG_DFL; // whatever the test program has inherited
        for (size_t i = 0; i < std::size(NUMBERS); ++i)
            ::sigaction(NUMBERS[i], &plain, &before_[i]);
    }
    ~Signals() override
    {
        for (size_t i = 0; i < std::size(NUMBERS); ++i)
            ::sigaction(NUMBERS[i], &before_[i], nullptr);
    }

    static struct sigaction disposition(int signo)
    {
        struct sigaction action = {};
        EXPECT_EQ(::sigaction(signo, nullptr, &action), 0);
        return action;
    }

    static bool running()
    {
        return __atomic_load_n(&vesk::keep_running_, __ATOMIC_RELAXED);
    }

    static constexpr int NUMBERS[] = {SIGHUP, SIGPIPE, SIGINT, SIGTERM};
    struct sigaction before_[std::size(NUMBERS)] = {};
};

TEST_F(Signals, TheHandlerClearsTheRunFlagWhateverTheSignal)
{
    for (const int signo : {SIGINT, SIGTERM, 0}) {
        reset_globals();
        ASSERT_TRUE(running());
        vesk::s_signal_handler(signo);
        EXPECT_FALSE(running());
    }
}

TEST_F(Signals, AHangUpAndABrokenPipeAreIgnored)
{
    vesk::s_catch_signals();
    EXPECT_EQ(disposition(SIGHUP).sa_handler, SIG_IGN);
    EXPECT_EQ(disposition(SIGPIPE).sa_handler, SIG_IGN);
}

TEST_F(Signals, InterruptAndTerminationAreHandledWithSiginfoAndAnEmptyMask)
{
    vesk::s_catch_signals();
    for (const int signo : {SIGINT, SIGTERM}) {
        const struct sigaction action = disposition(signo);
        EXPECT_EQ(action.sa_handler, &vesk::s_signal_handler);
        // The kernel may show a flag of the C library's own beside these.
        EXPECT_EQ(
            static_cast<unsigned>(action.sa_flags) &
                (SA_SIGINFO | SA_RESTART | SA_NODEFER | SA_RESETHAND | SA_ONSTACK),
            SA_SIGINFO);
        for (int other = 1; other < 32; ++other)
            EXPECT_EQ(::sigismember(&action.sa_mask, other), 0);
    }
}

TEST_F(Signals, ARaisedSignalStopsTheRun)
{
    vesk::s_catch_signals();
    for (const int signo : {SIGINT, SIGTERM}) {
        reset_globals();
        ASSERT_EQ(::raise(signo), 0);
        EXPECT_FALSE(running());
    }
}

} // namespace tcp_replay_test
