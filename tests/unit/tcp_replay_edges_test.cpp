// Replays at the edges of their use: stopped within a pass from memory, without files,
// with more captures than are preloaded.
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

#include <gtest/gtest.h>

#include "support/capture_builder.h"
#include "support/eventually.h"
#include "support/fatal.h"
#include "support/output_capture.h"
#include "support/replay_fixture.h"
#include "support/scratch_dir.h"
#include "tcp_replay.h"

namespace tcp_replay_edges_test {

using vesk::PROTOTYPE;

constexpr uint64_t NO_LIMIT = 0;
// Sending there needs SO_BROADCAST, so the kernel refuses the first datagram; the
// engine then sends no more and its queue fills.
constexpr char REFUSED_DESTINATION[] = "255.255.255.255:9";

class opened_file_replay : public vesk::filereplay {
public:
    using filereplay::filereplay;

    using filereplay::file_helper_;
    using filereplay::loopback_;
    using filereplay::msg_v_;
    using filereplay::read_message;
    using filereplay::READ_MODE;
    using filereplay::wakeup_handler_;
};

class opened_capture_replay : public vesk::pcapreplay {
public:
    using pcapreplay::pcapreplay;

    using pcapreplay::msg_v_;
};

class ReplayEdges : public support::replay_fixture {
protected:
    std::string save(const std::string& name, const std::string& bytes) const
    {
        support::write_file(dir_.file(name), bytes);
        return dir_.file(name);
    }

    const support::scratch_dir dir_;
    const support::output_capture output_;
};

TEST_F(ReplayEdges, AStopOnAFullQueueEndsAPassFromMemoryAndCountsIt)
{
    // 1100 messages: more than the queue holds.
    const std::string path = save("file", "");
    std::filesystem::resize_file(path, 1100 * 10240);
    opened_file_replay replay(
        REFUSED_DESTINATION, path, PROTOTYPE::UDP, 5, true, NO_LIMIT, "");
    ASSERT_EQ(replay.msg_v_.size(), 1100U);

    std::thread reader([&] { replay.start_replay(); });
    // Told on the first message, so the start is past forgetting a stop.
    EXPECT_TRUE(support::eventually([&] { return output_.text() == "socket error\n"; }));
    vesk::s_signal_handler(SIGINT);
    reader.join();
    EXPECT_EQ(replay.loopback_, 4U);
}

TEST_F(ReplayEdges, ABlockIsReadIntoTheBufferThatAnEmptyReadLeft)
{
    opened_file_replay replay(
        REFUSED_DESTINATION, save("file", "five!"), PROTOTYPE::UDP, 1, false, NO_LIMIT,
        "");
    auto message = std::make_shared<vesk::dataBuffer>();
    const auto* buffer = message.get();

    replay.file_helper_.open(dir_.file("file"), replay.READ_MODE);
    replay.read_message(message);
    EXPECT_EQ(message.get(), buffer);
    EXPECT_EQ(std::string(message->buf, message->length), "five!");
}

TEST_F(ReplayEdges, PreloadingAFileOnRequestReturnsZeroAndAddsToWhatIsThere)
{
    opened_file_replay replay(
        REFUSED_DESTINATION, save("file", "five!"), PROTOTYPE::UDP, 1, true, NO_LIMIT,
        "");
    EXPECT_EQ(replay.preload_file(), 0);
    EXPECT_EQ(replay.msg_v_.size(), 2U);
}

TEST_F(ReplayEdges, WritabilityReportedForTheWakeUpDescriptorDoesNothing)
{
    opened_file_replay replay(
        "127.0.0.1:0", save("file", "x"), PROTOTYPE::TCP, 1, false, NO_LIMIT, "");
    replay.wakeup_handler_.out_event();
    EXPECT_EQ(output_.text(), "");
}

TEST_F(ReplayEdges, OfSeveralCapturesNoneIsPreloadedOnRequestEither)
{
    const std::string capture =
        support::capture_bytes({support::tcp_frame({.payload = "payload"})});
    save("a", capture);
    save("b", capture);
    opened_capture_replay replay(
        REFUSED_DESTINATION, dir_.path(), PROTOTYPE::UDP, 1, false, NO_LIMIT, "");
    replay.preload_file();
    EXPECT_TRUE(replay.msg_v_.empty());
    EXPECT_EQ(output_.text(), "");
}

// Whether this process has the file open.
bool is_open_here(const std::string& path)
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored; // the walk's own descriptor has gone by now
        if (std::filesystem::read_symlink(entry, ignored) == path)
            return true;
    }
    return false;
}

TEST_F(ReplayEdges, AFileIsClosedOnceItIsPreloaded)
{
    const std::string path = save("file", "five!");
    const opened_file_replay replay(
        REFUSED_DESTINATION, path, PROTOTYPE::UDP, 1, true, NO_LIMIT, "");
    ASSERT_EQ(replay.msg_v_.size(), 1U);
    EXPECT_FALSE(is_open_here(path));
}

TEST_F(ReplayEdges, ACaptureIsClosedOnceItIsPreloaded)
{
    const std::string path =
        save("a", support::capture_bytes({support::tcp_frame({.payload = "payload"})}));
    const opened_capture_replay replay(
        REFUSED_DESTINATION, path, PROTOTYPE::UDP, 1, true, NO_LIMIT, "");
    ASSERT_EQ(replay.msg_v_.size(), 1U);
    EXPECT_FALSE(is_open_here(path));
}

TEST_F(ReplayEdges, WhileTheRunIsHeldItsFileIsClosed)
{
    const std::string path = save("file", "five!");
    opened_file_replay replay(
        REFUSED_DESTINATION, path, PROTOTYPE::UDP, 1, false, NO_LIMIT, "");
    std::thread reader([&] { replay.start_replay(); });
    EXPECT_TRUE(support::eventually([&] { return output_.text() == "socket error\n"; }));
    EXPECT_TRUE(support::eventually([&] { return !is_open_here(path); }));
    vesk::s_signal_handler(SIGINT);
    reader.join();
}

TEST_F(ReplayEdges, WhileTheRunIsHeldItsCaptureIsClosed)
{
    const std::string path =
        save("a", support::capture_bytes({support::udp_frame({.payload = "payload"})}));
    opened_capture_replay replay(
        REFUSED_DESTINATION, path, PROTOTYPE::UDP, 1, false, NO_LIMIT, "");
    std::thread reader([&] { replay.start_replay("udp"); });
    EXPECT_TRUE(support::eventually(
        [&] { return output_.text().find("socket error\n") != std::string::npos; }));
    EXPECT_TRUE(support::eventually([&] { return !is_open_here(path); }));
    vesk::s_signal_handler(SIGINT);
    reader.join();
}

TEST(ReplayEdgesDeathTest, AnEmptyListOfNamesIsFatal)
{
    EXPECT_FATAL(
        vesk::filereplay("127.0.0.1:0", vesk::filename_list()),
        "Assertion failed: !filename_v_.empty()", "tcp_replay.h");
}

} // namespace tcp_replay_edges_test
