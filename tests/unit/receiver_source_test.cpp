// What the sender must send, message by message: data files and captures, folders
// and passes, forwards and preloaded, and where the sender ends early. Expected
// messages come from the parts that the files were made of; one test asks the
// sender's own readers.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "capture_reader.h"
#include "capture_source.h"
#include "common.h"
#include "data_source.h"
#include "source.h"
#include "support/capture_builder.h"
#include "support/output_capture.h"
#include "support/scratch_dir.h"

namespace receiver_source_test {

using namespace receiver;
using support::capture_bytes;
using support::capture_format;
using support::frame;
using support::sample_bytes;
using support::scratch_dir;
using support::tcp_frame;
using support::udp_frame;
using support::with_lengths;
using support::write_file;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using messages_t = std::vector<std::string>;

constexpr size_t BLOCK = 10240;

std::string text_of(bytes_view bytes) { return {bytes.begin(), bytes.end()}; }

// All messages, or as many as asked for.
messages_t take(message_source& source, size_t most = SIZE_MAX)
{
    messages_t messages;
    bytes_view message;
    while (messages.size() < most && source.next(message))
        messages.push_back(text_of(message));
    return messages;
}

std::unique_ptr<message_source> open_data(
    const std::string& path, uint32_t passes = 1, bool preload = false)
{
    return open_source({path, false, "", passes, preload});
}

std::unique_ptr<message_source> open_capture(
    const std::string& path, const std::string& filter, uint32_t passes = 1)
{
    return open_source({path, true, filter, passes, false});
}

std::unique_ptr<message_source> open_preloaded(
    const std::string& path, uint32_t passes = 1)
{
    return open_source({path, true, "udp", passes, true});
}

// What is thrown for a path that cannot be replayed.
std::string refusal(const source_options& options)
{
    try {
        (void)open_source(options);
    } catch (const file_error& error) {
        return error.what();
    }
    return "(opened)";
}

messages_t pieces_of(const std::string& bytes)
{
    messages_t pieces;
    for (size_t i = 0; i < bytes.size(); i += BLOCK)
        pieces.push_back(bytes.substr(i, BLOCK));
    return pieces;
}

// The messages of frames that all pass.
messages_t payloads_of(const std::vector<frame>& frames)
{
    messages_t messages;
    for (const frame& each : frames) {
        for (std::string& piece : pieces_of(each.payload))
            messages.push_back(std::move(piece));
    }
    return messages;
}

messages_t reversed(messages_t messages)
{
    std::reverse(messages.begin(), messages.end());
    return messages;
}

messages_t operator+(messages_t left, const messages_t& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

frame udp(const std::string& payload)
{
    support::frame_parts parts;
    parts.payload = payload;
    return udp_frame(parts);
}

frame tcp(const std::string& payload)
{
    support::frame_parts parts;
    parts.payload = payload;
    return tcp_frame(parts);
}

std::vector<frame> many_tcp_frames(size_t count, size_t size = 40)
{
    std::vector<frame> frames;
    for (uint32_t i = 0; i < count; ++i)
        frames.push_back(tcp(sample_bytes(size + i % 7, i + 1)));
    return frames;
}

// Starts at 0, never falls, and is 1 at the end.
void expect_whole_way(message_source& source)
{
    ASSERT_EQ(source.fraction(), 0.0);
    double last = 0;
    bytes_view message;
    while (source.next(message)) {
        ASSERT_TRUE(source.fraction());
        ASSERT_GE(*source.fraction(), last);
        ASSERT_LE(*source.fraction(), 1.0);
        last = *source.fraction();
    }
    EXPECT_EQ(source.fraction(), 1.0);
}

class ReceiverSource : public testing::Test {
protected:
    std::string put(const std::string& name, const std::string& bytes)
    {
        write_file(files_.file(name), bytes);
        return files_.file(name);
    }

    const std::string& folder() const { return files_.path(); }

    scratch_dir files_;
};

// --------------------------------------------------------------------- data files

TEST_F(ReceiverSource, ADataFileIsCutIntoBlocks)
{
    for (const size_t size :
         {1UL, 10239UL, 10240UL, 10241UL, 25000UL, 122880UL, 122881UL, 245760UL,
          300001UL}) {
        const std::string bytes = sample_bytes(size);
        EXPECT_EQ(take(*open_data(put("day", bytes))), pieces_of(bytes)) << size;
    }
}

TEST_F(ReceiverSource, AnEmptyDataFileGivesNothing)
{
    const auto source = open_data(put("day", ""));
    EXPECT_THAT(take(*source), IsEmpty());
    EXPECT_EQ(source->error(), "");
}

TEST_F(ReceiverSource, AFinishedSourceStaysFinished)
{
    const auto source = open_data(put("day", "abc"), 2);
    EXPECT_THAT(take(*source), SizeIs(2));
    EXPECT_THAT(take(*source), IsEmpty());
}

TEST_F(ReceiverSource, AFileIsReadAgainInEveryPass)
{
    const std::string bytes = sample_bytes(BLOCK + 5);
    const auto source = open_data(put("day", bytes), 3);
    EXPECT_EQ(take(*source), pieces_of(bytes) + pieces_of(bytes) + pieces_of(bytes));
}

TEST_F(ReceiverSource, AFileThatChangesBetweenPassesIsReadAsItIsThen)
{
    const auto source = open_data(put("day", "old"), 2);
    EXPECT_EQ(take(*source, 1), messages_t{"old"});
    put("day", "newer");
    EXPECT_EQ(take(*source), messages_t{"newer"});
}

TEST_F(ReceiverSource, ZeroPassesGoOnAndOn)
{
    const auto source = open_data(put("day", "abc"), 0);
    EXPECT_EQ(take(*source, 1000), messages_t(1000, "abc"));
}

TEST_F(ReceiverSource, EndlessPassesOverNothingEnd)
{
    put("day", "");
    put("night", "");
    const auto source = open_data(folder(), 0);
    EXPECT_THAT(take(*source), IsEmpty());
    EXPECT_EQ(source->error(), "");
}

TEST_F(ReceiverSource, AFoldersFilesFollowInVersionOrder)
{
    for (const char* name : {"f10", "f2", "f1", "e9", "f2b"})
        put(name, name);
    EXPECT_THAT(take(*open_data(folder())), ElementsAre("e9", "f1", "f2", "f2b", "f10"));
}

TEST_F(ReceiverSource, AFoldersOrderIsTheSameInEveryPass)
{
    put("f10", "b");
    put("f2", "a");
    EXPECT_THAT(
        take(*open_data(folder() + "/", 3)), ElementsAre("a", "b", "a", "b", "a", "b"));
}

TEST_F(ReceiverSource, BlocksDoNotSpanFiles)
{
    const std::string first = sample_bytes(BLOCK + 3, 1);
    const std::string second = sample_bytes(2 * BLOCK, 2);
    put("a", first);
    put("b", second);
    put("c", "tail");
    EXPECT_EQ(
        take(*open_data(folder())),
        pieces_of(first) + pieces_of(second) + messages_t{"tail"});
}

TEST_F(ReceiverSource, AnEmptyFileOfAFolderIsPassedOver)
{
    put("a", "");
    put("b", "text");
    put("c", "");
    EXPECT_THAT(take(*open_data(folder(), 2)), ElementsAre("text", "text"));
}

TEST_F(ReceiverSource, FoldersWithinAFolderAreLeftOutAndCounted)
{
    put("a", "text");
    std::filesystem::create_directory(files_.file("b"));
    put("b/inside", "hidden");
    ASSERT_EQ(::mkfifo(files_.file("c").c_str(), 0600), 0);
    const auto source = open_data(folder());
    EXPECT_THAT(take(*source), ElementsAre("text"));
    EXPECT_EQ(source->notes().files, 1U);
    EXPECT_EQ(source->notes().omitted.entries, 2U);
}

TEST_F(ReceiverSource, ALinkToAFileIsThatFile)
{
    const scratch_dir elsewhere;
    write_file(elsewhere.file("day"), "linked");
    std::filesystem::create_symlink(elsewhere.file("day"), files_.file("a"));
    EXPECT_THAT(take(*open_data(folder())), ElementsAre("linked"));
}

TEST_F(ReceiverSource, AFileThatIsGoneInTheSecondPassEndsTheSource)
{
    put("a", "first");
    put("b", "second");
    const auto source = open_data(folder(), 3);
    EXPECT_THAT(take(*source, 2), ElementsAre("first", "second"));
    EXPECT_EQ(source->error(), "");
    std::filesystem::remove(files_.file("b"));
    EXPECT_THAT(take(*source), ElementsAre("first"));
    EXPECT_THAT(
        source->error(), AllOf(HasSubstr(files_.file("b")), HasSubstr("No such file")));
    EXPECT_THAT(take(*source), IsEmpty());
}

// An entry that cannot be examined counts as what stands in front of it.
TEST_F(ReceiverSource, ADanglingLinkBehindAFileEndsTheSourceThere)
{
    put("a", "text");
    std::filesystem::create_symlink(files_.file("nowhere"), files_.file("b"));
    put("c", "more");
    const auto source = open_data(folder());
    EXPECT_THAT(take(*source), ElementsAre("text"));
    EXPECT_THAT(source->error(), HasSubstr(files_.file("b")));
}

TEST_F(ReceiverSource, ADanglingLinkInFrontOfAllFilesIsLeftOut)
{
    std::filesystem::create_symlink(files_.file("nowhere"), files_.file("a"));
    put("b", "text");
    const auto source = open_data(folder());
    EXPECT_THAT(take(*source), ElementsAre("text"));
    EXPECT_EQ(source->notes().omitted.entries, 1U);
}

TEST_F(ReceiverSource, DataFilesShowTheirProgress)
{
    put("a", sample_bytes(3 * BLOCK + 1));
    put("b", "");
    put("c", sample_bytes(13 * BLOCK));
    expect_whole_way(*open_data(folder()));
    expect_whole_way(*open_data(folder(), 4));
}

TEST_F(ReceiverSource, HalfOfADataFileIsHalfOfTheWay)
{
    const auto source = open_data(put("day", sample_bytes(4 * BLOCK)), 2);
    (void)take(*source, 2);
    EXPECT_EQ(source->fraction(), 0.25);
    (void)take(*source, 4);
    EXPECT_EQ(source->fraction(), 0.75);
}

TEST_F(ReceiverSource, AnEndlessSourceHasNoProgress)
{
    const std::string day = put("day", "abc");
    EXPECT_EQ(open_data(day, 0)->fraction(), std::nullopt);
    EXPECT_EQ(open_data(day, 0, true)->fraction(), std::nullopt);
}

TEST_F(ReceiverSource, NotesOfDataFilesCountOnePass)
{
    put("a", "x");
    put("b", "y");
    const auto source = open_data(folder(), 3);
    (void)take(*source);
    EXPECT_EQ(source->notes().files, 2U);
    EXPECT_EQ(source->notes().omitted.entries, 0U);
    EXPECT_THAT(source->notes().sentences, IsEmpty());
}

// ----------------------------------------------------------- data files, preloaded

// One block, exact multiples, and more than are read at a time.
TEST_F(ReceiverSource, APreloadedDataFileIsReversedBlockByBlock)
{
    for (const size_t size :
         {1UL, BLOCK, BLOCK + 1, 2 * BLOCK, 12 * BLOCK - 1, 12 * BLOCK, 12 * BLOCK + 1,
          13 * BLOCK, 24 * BLOCK, 24 * BLOCK + 7, 50 * BLOCK + 5}) {
        const std::string bytes = sample_bytes(size);
        EXPECT_EQ(
            take(*open_data(put("day", bytes), 1, true)), reversed(pieces_of(bytes)))
            << size;
    }
}

TEST_F(ReceiverSource, APreloadedDataFileIsReversedInEveryPass)
{
    for (const size_t size : {3UL, 2 * BLOCK, 12 * BLOCK, 30 * BLOCK + 1}) {
        const messages_t one_pass = reversed(pieces_of(sample_bytes(size)));
        const auto source = open_data(put("day", sample_bytes(size)), 3, true);
        EXPECT_EQ(take(*source), one_pass + one_pass + one_pass) << size;
        EXPECT_THAT(take(*source), IsEmpty());
    }
}

TEST_F(ReceiverSource, APreloadedDataFileCanBeEndless)
{
    const messages_t one_pass = reversed(pieces_of(sample_bytes(BLOCK + 1)));
    const auto source = open_data(put("day", sample_bytes(BLOCK + 1)), 0, true);
    EXPECT_EQ(take(*source, 6), one_pass + one_pass + one_pass);
}

TEST_F(ReceiverSource, AnEmptyPreloadedDataFileGivesNothing)
{
    for (const uint32_t passes : {0U, 1U, 3U}) {
        const auto source = open_data(put("day", ""), passes, true);
        EXPECT_THAT(take(*source), IsEmpty());
        EXPECT_EQ(source->error(), "");
    }
}

TEST_F(ReceiverSource, AFolderOfOneFileIsPreloaded)
{
    put("day", sample_bytes(BLOCK + 1));
    std::filesystem::create_directory(files_.file("sub"));
    const auto source = open_data(folder(), 1, true);
    EXPECT_EQ(take(*source), reversed(pieces_of(sample_bytes(BLOCK + 1))));
    EXPECT_EQ(source->notes().omitted.entries, 1U);
    EXPECT_EQ(source->notes().files, 1U);
}

TEST_F(ReceiverSource, OfAPreloadedFolderOfTwoFilesNothingIsSent)
{
    put("a", "text");
    put("b", "text");
    for (const uint32_t passes : {0U, 1U, 3U}) {
        const auto source = open_data(folder(), passes, true);
        EXPECT_THAT(take(*source), IsEmpty());
        EXPECT_EQ(source->error(), "");
        EXPECT_EQ(source->notes().files, 2U);
        EXPECT_THAT(source->notes().sentences, ElementsAre(HasSubstr("--preload")));
    }
}

TEST_F(ReceiverSource, APreloadedDataFileShowsItsProgress)
{
    const std::string day = put("day", sample_bytes(30 * BLOCK + 1));
    expect_whole_way(*open_data(day, 1, true));
    expect_whole_way(*open_data(day, 3, true));
}

TEST_F(ReceiverSource, APreloadedFileThatCannotBeOpenedIsAnError)
{
    file_list list;
    list.files.push_back(files_.file("gone"));
    reversed_data_source source(list);
    EXPECT_THAT(take(source), IsEmpty());
    EXPECT_THAT(source.error(), HasSubstr(files_.file("gone")));
}

// -------------------------------------------------------------------------- paths

TEST_F(ReceiverSource, AMissingPathIsRefusedByName)
{
    EXPECT_THAT(
        refusal({files_.file("gone"), false, "", 1, false}),
        AllOf(HasSubstr(files_.file("gone")), HasSubstr("No such file")));
    EXPECT_THAT(
        refusal({files_.file("gone"), true, "udp", 1, false}),
        HasSubstr(files_.file("gone")));
}

TEST_F(ReceiverSource, AFolderWithoutFilesIsRefusedByName)
{
    std::filesystem::create_directory(files_.file("sub"));
    for (const bool captures : {false, true})
        EXPECT_THAT(refusal({folder(), captures, "udp", 1, false}), HasSubstr(folder()));
}

TEST_F(ReceiverSource, APipeIsRefusedByName)
{
    ASSERT_EQ(::mkfifo(files_.file("pipe").c_str(), 0600), 0);
    for (const bool captures : {false, true})
        EXPECT_THAT(
            refusal({files_.file("pipe"), captures, "udp", 1, false}),
            HasSubstr(files_.file("pipe")));
}

TEST_F(ReceiverSource, ADeviceIsRefusedByName)
{
    EXPECT_THAT(refusal({"/dev/null", false, "", 1, false}), HasSubstr("/dev/null"));
}

TEST_F(ReceiverSource, ItsFilesAreToldInReplayOrder)
{
    put("f10", "");
    put("f2", "");
    std::filesystem::create_directory(files_.file("f1"));
    EXPECT_THAT(
        source_files({folder(), false, "", 1, false}),
        ElementsAre(files_.file("f2"), files_.file("f10")));
    EXPECT_THAT(
        source_files({files_.file("f2"), true, "udp", 0, true}),
        ElementsAre(files_.file("f2")));
    EXPECT_THROW(source_files({files_.file("gone"), false, "", 1, false}), file_error);
}

// ----------------------------------------------------------------------- captures

TEST_F(ReceiverSource, APayloadIsAMessageInEveryFormat)
{
    const std::vector<frame> frames = {udp("one"), udp("two"), udp(sample_bytes(1400))};
    for (const bool pcapng : {false, true}) {
        for (const bool big_endian : {false, true}) {
            for (const bool nanoseconds : {false, true}) {
                const auto path =
                    put("day", capture_bytes(frames, {pcapng, big_endian, nanoseconds}));
                EXPECT_EQ(take(*open_capture(path, "udp")), payloads_of(frames))
                    << pcapng << big_endian << nanoseconds;
            }
        }
    }
}

TEST_F(ReceiverSource, HeadersOfAnyLengthAreCutOff)
{
    support::frame_parts with_options;
    with_options.payload = "behind options";
    with_options.ip_options = std::string(40, '\1');
    support::frame_parts tcp_options;
    tcp_options.payload = "behind a long header";
    tcp_options.tcp_options = std::string(40, '\1');
    EXPECT_THAT(
        take(*open_capture(put("u", capture_bytes({udp_frame(with_options)})), "udp")),
        ElementsAre("behind options"));
    EXPECT_THAT(
        take(*open_capture(put("t", capture_bytes({tcp_frame(tcp_options)})), "tcp")),
        ElementsAre("behind a long header"));
}

// The TCP header's length is taken at one place, where behind options of the IPv4
// header another byte stands: here 4 bytes on, the acknowledgement's upper byte.
TEST_F(ReceiverSource, BehindIpOptionsATcpPayloadIsCutByAnotherByte)
{
    support::frame_parts parts;
    parts.payload = "payload behind";
    parts.ip_options = std::string(4, '\1');
    parts.acknowledgement = 0x60000000; // 24 bytes instead of 20
    const std::string path = put("t", capture_bytes({tcp_frame(parts)}));
    EXPECT_THAT(take(*open_capture(path, "tcp")), ElementsAre("oad behind"));
}

TEST_F(ReceiverSource, PaddingIsSentWithThePayload)
{
    support::frame_parts parts;
    parts.payload = "short";
    parts.padding = std::string(13, '\0');
    const std::string path = put("u", capture_bytes({udp_frame(parts)}));
    EXPECT_THAT(
        take(*open_capture(path, "udp")), ElementsAre("short" + std::string(13, '\0')));
}

TEST_F(ReceiverSource, FramesThatTheFilterKeepsBackAreLeftOutAndCounted)
{
    support::frame_parts other;
    other.payload = "other port";
    other.destination_port = 5001;
    const std::string path = put(
        "day", capture_bytes({udp("one"), tcp("stream"), udp_frame(other), udp("two")}));
    const auto source = open_capture(path, " udp and dst port 5000\n");
    EXPECT_THAT(take(*source), ElementsAre("one", "two"));
    EXPECT_EQ(source->notes().omitted.filtered, 2U);
    EXPECT_EQ(source->notes().files, 1U);
}

TEST_F(ReceiverSource, TheFiltersFirstTransportTellsTheCut)
{
    const std::string path = put("day", capture_bytes({udp("abcd0fgh"), tcp("stream")}));
    // As a TCP header's length, the datagram's fifth byte, a 0x30, is 12 bytes: 4
    // more than a UDP header has.
    EXPECT_THAT(take(*open_capture(path, "tcp or udp")), ElementsAre("0fgh", "stream"));
    const messages_t as_udp = take(*open_capture(path, "udp or tcp"));
    ASSERT_THAT(as_udp, SizeIs(2));
    EXPECT_EQ(as_udp[0], "abcd0fgh");
    EXPECT_EQ(as_udp[1], tcp("stream").bytes.substr(42));
}

TEST_F(ReceiverSource, BlanksAroundTheFilterDoNotHideItsTransport)
{
    const std::string path = put("day", capture_bytes({udp("abcd0fgh")}));
    for (const char* filter : {"\tudp\n", "\r\n udp ", "udp\t"})
        EXPECT_THAT(take(*open_capture(path, filter)), ElementsAre("abcd0fgh"));
}

TEST_F(ReceiverSource, EmptyPayloadsAreLeftOutAndCounted)
{
    const std::string path =
        put("day", capture_bytes({tcp(""), tcp("one"), tcp(""), tcp("")}));
    const auto source = open_capture(path, "tcp");
    EXPECT_THAT(take(*source), ElementsAre("one"));
    EXPECT_EQ(source->notes().omitted.empty, 3U);
    EXPECT_EQ(source->notes().omitted.short_frames, 0U);
}

// The filter looks at the first 24 bytes alone.
TEST_F(ReceiverSource, FramesShorterThanTheirHeadersAreLeftOutAndCounted)
{
    const std::vector<frame> frames = {
        support::truncated(udp("gone"), 41), udp("one"),
        support::truncated(udp("gone"), 24), support::truncated(udp("gone"), 42)};
    const auto source = open_capture(put("day", capture_bytes(frames)), "udp");
    EXPECT_THAT(take(*source), ElementsAre("one"));
    EXPECT_EQ(source->notes().omitted.short_frames, 2U);
    EXPECT_EQ(source->notes().omitted.empty, 1U);
}

TEST_F(ReceiverSource, FramesCutByTheSnapshotAreSentShortAndCounted)
{
    const std::vector<frame> frames = {
        support::truncated(udp("a long payload"), 48), udp("whole")};
    const auto source = open_capture(put("day", capture_bytes(frames)), "udp");
    EXPECT_THAT(take(*source), ElementsAre("a long", "whole"));
    EXPECT_EQ(source->notes().noted.cut_by_snapshot, 1U);
}

TEST_F(ReceiverSource, LongPayloadsAreSentInPiecesAndCounted)
{
    for (const size_t size : {BLOCK, BLOCK + 1, 2 * BLOCK, 3 * BLOCK + 17}) {
        const std::vector<frame> frames = {udp("a"), udp(sample_bytes(size)), udp("z")};
        const auto source = open_capture(put("day", capture_bytes(frames)), "udp");
        EXPECT_EQ(take(*source), payloads_of(frames)) << size;
        EXPECT_EQ(source->notes().noted.split_payloads, size > BLOCK ? 1U : 0U) << size;
    }
}

TEST_F(ReceiverSource, AFrameIsNotLongerThanItWasOnTheWire)
{
    const frame claims_more = with_lengths(udp("abcdef"), 48, 45);
    const auto source =
        open_capture(put("day", capture_bytes({claims_more, udp("z")})), "udp");
    EXPECT_THAT(take(*source), ElementsAre("abc", "z"));
    EXPECT_EQ(source->notes().noted.cut_by_snapshot, 0U);
}

TEST_F(ReceiverSource, AFrameTooLongOnTheWireEndsTheSender)
{
    const frame too_long = with_lengths(udp("abc"), 45, 262145);
    const auto source = open_capture(
        put("day", capture_bytes({udp("one"), too_long, udp("two")})), "udp", 2);
    EXPECT_THAT(take(*source), ElementsAre("one"));
    EXPECT_THAT(
        source->error(), AllOf(HasSubstr(files_.file("day")), HasSubstr("262145")));
    EXPECT_THAT(take(*source), IsEmpty());
}

TEST_F(ReceiverSource, AFrameOfTheGreatestLengthOnTheWireIsSent)
{
    const frame greatest = with_lengths(udp("abc"), 45, 262144);
    const auto source = open_capture(put("day", capture_bytes({greatest})), "udp");
    EXPECT_THAT(take(*source), ElementsAre("abc"));
    EXPECT_EQ(source->error(), "");
}

TEST_F(ReceiverSource, AFrameOfNoLengthOnTheWireEndsTheSender)
{
    const frame nothing = with_lengths(udp("abc"), 45, 0);
    const auto source =
        open_capture(put("day", capture_bytes({udp("one"), nothing})), "udp");
    EXPECT_THAT(take(*source), ElementsAre("one"));
    EXPECT_THAT(source->error(), HasSubstr(files_.file("day")));
}

TEST_F(ReceiverSource, AFrameOfWhichNothingWasCapturedEndsTheSender)
{
    frame nothing = udp("abc");
    nothing.bytes.clear();
    nothing.captured_length = 0;
    // A filter that lets every frame through, also this one.
    const auto source = open_capture(
        put("day", capture_bytes({udp("one"), nothing})), "greater 0 or udp");
    EXPECT_THAT(take(*source), ElementsAre("one"));
    EXPECT_THAT(source->error(), HasSubstr(files_.file("day")));
}

TEST_F(ReceiverSource, AnImpossibleFrameThatTheFilterKeepsBackEndsNothing)
{
    const frame too_long = with_lengths(tcp("abc"), 57, 262145);
    const auto source =
        open_capture(put("day", capture_bytes({too_long, udp("one")})), "udp");
    EXPECT_THAT(take(*source), ElementsAre("one"));
    EXPECT_EQ(source->error(), "");
}

TEST_F(ReceiverSource, ATruncatedCaptureEndsThereAndTheNextFollows)
{
    const std::string whole = capture_bytes({udp("one"), udp("two")});
    put("a", whole.substr(0, whole.size() - 1));
    put("b", capture_bytes({udp("three")}));
    const auto source = open_capture(folder(), "udp");
    EXPECT_THAT(take(*source), ElementsAre("one", "three"));
    EXPECT_EQ(source->error(), "");
    EXPECT_EQ(source->notes().noted.broken_files, 1U);
    EXPECT_THAT(source->notes().sentences, ElementsAre(HasSubstr(files_.file("a"))));
}

TEST_F(ReceiverSource, AnotherLinkTypeIsCutAtTheWrongPlaceAndNoted)
{
    // Raw IPv4: 14 bytes on stands the source address' third byte, a zero, so that
    // the cut is behind 14 + 0 + 8 bytes.
    const std::string bytes = udp("payload").bytes.substr(14);
    const auto length = static_cast<uint32_t>(bytes.size());
    capture_format raw;
    raw.link_type = 101;
    const auto source = open_capture(
        put("day", capture_bytes({{bytes, length, length, ""}}, raw)), "udp");
    EXPECT_THAT(take(*source), ElementsAre(bytes.substr(22)));
    EXPECT_EQ(source->notes().noted.odd_link_files, 1U);
    EXPECT_THAT(
        source->notes().sentences,
        ElementsAre(AllOf(HasSubstr(files_.file("day")), HasSubstr("RAW"))));
}

TEST_F(ReceiverSource, AnUnnamedLinkTypeIsNotedByItsNumber)
{
    capture_format odd;
    odd.link_type = 147;
    // No filter looks into frames of a link type of the user's own.
    const auto source = open_capture(
        put("day", capture_bytes({udp("payload")}, odd)), "udp or greater 0");
    (void)take(*source);
    EXPECT_EQ(source->notes().noted.odd_link_files, 1U);
    ASSERT_FALSE(source->notes().sentences.empty());
    EXPECT_THAT(
        source->notes().sentences[0],
        testing::AnyOf(HasSubstr("147"), HasSubstr("USER0")));
}

TEST_F(ReceiverSource, ACaptureThatRefusesTheFilterIsSkippedAndNoted)
{
    capture_format raw;
    raw.link_type = 101;
    put("a", capture_bytes({udp("one")}));
    put("b", capture_bytes({udp("two")}, raw));
    put("c", capture_bytes({udp("three")}));
    // Raw IPv4 has no hardware addresses to filter by.
    const auto source = open_capture(folder(), "udp and ether src 02:00:00:00:00:01");
    EXPECT_THAT(take(*source), ElementsAre("one", "three"));
    EXPECT_EQ(source->error(), "");
    EXPECT_THAT(
        source->notes().sentences,
        testing::Contains(AllOf(HasSubstr(files_.file("b")), HasSubstr("filter"))));
}

TEST_F(ReceiverSource, RefusedFiltersAreCountedInOnePass)
{
    put("a", capture_bytes({udp("one")}));
    put("b", capture_bytes({udp("two")}));
    // The library knows no words in capitals.
    const auto source = open_capture(folder(), "UDP and port 5000", 3);
    EXPECT_THAT(take(*source), IsEmpty());
    EXPECT_EQ(source->notes().omitted.refused_files, 2U);
}

TEST_F(ReceiverSource, EndlessPassesOverRefusedFiltersEnd)
{
    const auto source =
        open_capture(put("day", capture_bytes({udp("one")})), "UDP and port 5000", 0);
    EXPECT_THAT(take(*source), IsEmpty());
    EXPECT_EQ(source->error(), "");
}

TEST_F(ReceiverSource, EndlessPassesOverFilteredFramesEnd)
{
    const auto source = open_capture(put("day", capture_bytes({udp("one")})), "tcp", 0);
    EXPECT_THAT(take(*source), IsEmpty());
}

TEST_F(ReceiverSource, ACaptureWithoutFramesGivesNothing)
{
    for (const bool pcapng : {false, true}) {
        const auto source =
            open_capture(put("day", capture_bytes({}, {pcapng})), "udp", 2);
        EXPECT_THAT(take(*source), IsEmpty());
        EXPECT_EQ(source->error(), "");
    }
}

TEST_F(ReceiverSource, WhatIsNoCaptureEndsTheSender)
{
    for (const char* bytes : {"", "no capture at all, but a text"}) {
        const auto source = open_capture(put("day", bytes), "udp");
        EXPECT_THAT(take(*source), IsEmpty());
        EXPECT_THAT(source->error(), HasSubstr(files_.file("day")));
    }
}

TEST_F(ReceiverSource, SeveralCapturesFollowInVersionOrderInEveryPass)
{
    put("f10", capture_bytes({udp("d")}));
    put("f2", capture_bytes({udp("b"), udp("c")}));
    put("f1", capture_bytes({udp("a")}, {true}));
    const auto source = open_capture(folder(), "udp", 2);
    EXPECT_THAT(take(*source), ElementsAre("a", "b", "c", "d", "a", "b", "c", "d"));
    EXPECT_THAT(take(*source), IsEmpty());
}

TEST_F(ReceiverSource, ACaptureThatIsGoneInTheSecondPassEndsTheSource)
{
    put("a", capture_bytes({udp("one")}));
    put("b", capture_bytes({udp("two")}));
    const auto source = open_capture(folder(), "udp", 2);
    EXPECT_THAT(take(*source, 2), ElementsAre("one", "two"));
    std::filesystem::remove(files_.file("b"));
    EXPECT_THAT(take(*source), ElementsAre("one"));
    EXPECT_THAT(source->error(), HasSubstr(files_.file("b")));
    EXPECT_THAT(take(*source), IsEmpty());
}

TEST_F(ReceiverSource, NotesOfCapturesCountOnePass)
{
    capture_format raw;
    raw.link_type = 101;
    const std::string whole = capture_bytes(
        {udp("one"), tcp("x"), udp(""), support::truncated(udp("gone"), 30),
         support::truncated(udp("gone"), 44), udp(sample_bytes(BLOCK + 1)), udp("cut")});
    put("a", whole.substr(0, whole.size() - 2));
    put("b", capture_bytes({}, raw));
    std::filesystem::create_directory(files_.file("c"));
    const auto source = open_capture(folder(), "udp", 3);
    EXPECT_THAT(take(*source), SizeIs(3 * 4));
    const source_notes notes = source->notes();
    EXPECT_EQ(notes.files, 2U);
    EXPECT_EQ(notes.omitted.filtered, 1U);
    EXPECT_EQ(notes.omitted.empty, 1U);
    EXPECT_EQ(notes.omitted.short_frames, 1U);
    EXPECT_EQ(notes.omitted.entries, 1U);
    EXPECT_EQ(notes.noted.cut_by_snapshot, 1U);
    EXPECT_EQ(notes.noted.split_payloads, 1U);
    EXPECT_EQ(notes.noted.odd_link_files, 1U);
    EXPECT_EQ(notes.noted.broken_files, 1U);
    EXPECT_THAT(notes.sentences, SizeIs(2));
}

TEST_F(ReceiverSource, NotesOfAnEndlessReplayCountOnePass)
{
    const auto source =
        open_capture(put("day", capture_bytes({udp("one"), tcp("x")})), "udp", 0);
    EXPECT_THAT(take(*source, 5), SizeIs(5));
    EXPECT_EQ(source->notes().files, 1U);
    EXPECT_EQ(source->notes().omitted.filtered, 1U);
}

TEST_F(ReceiverSource, CapturesShowTheirProgress)
{
    put("a", capture_bytes(std::vector<frame>(500, udp(sample_bytes(100)))));
    put("b", capture_bytes({}));
    put("c", capture_bytes(std::vector<frame>(50, udp(sample_bytes(900))), {true}));
    expect_whole_way(*open_capture(folder(), "udp"));
    expect_whole_way(*open_capture(folder(), "udp", 3));
    expect_whole_way(*open_capture(folder(), "tcp"));
}

TEST_F(ReceiverSource, AnEndlessCaptureHasNoProgress)
{
    const std::string day = put("day", capture_bytes({tcp("one")}));
    EXPECT_EQ(open_capture(day, "tcp", 0)->fraction(), std::nullopt);
    EXPECT_EQ(open_preloaded(day, 0)->fraction(), std::nullopt);
}

// ------------------------------------------------------------- captures, preloaded

TEST_F(ReceiverSource, APreloadedCaptureIsTakenAsTcpFromItsEnd)
{
    const auto source = open_preloaded(
        put("day", capture_bytes({tcp("a"), udp("no"), tcp("b"), tcp(""), tcp("c")})));
    EXPECT_THAT(take(*source), ElementsAre("c", "b", "a"));
    EXPECT_THAT(take(*source), IsEmpty());
    EXPECT_EQ(source->notes().omitted.filtered, 1U);
    EXPECT_EQ(source->notes().omitted.empty, 1U);
    EXPECT_EQ(source->notes().files, 1U);
}

TEST_F(ReceiverSource, OfAPreloadedCaptureOfDatagramsNothingIsSent)
{
    for (const uint32_t passes : {0U, 2U}) {
        const auto source =
            open_preloaded(put("day", capture_bytes({udp("a"), udp("b")})), passes);
        EXPECT_THAT(take(*source), IsEmpty());
        EXPECT_EQ(source->error(), "");
    }
}

// A multiple of the parts in which it is read, one less and one more.
TEST_F(ReceiverSource, ALongPreloadedCaptureIsReversedWholly)
{
    for (const bool pcapng : {false, true}) {
        for (const size_t count : {255U, 256U, 257U, 512U, 1000U, 1025U, 2049U}) {
            const std::vector<frame> frames = many_tcp_frames(count);
            const auto source =
                open_preloaded(put("day", capture_bytes(frames, {pcapng})));
            EXPECT_EQ(take(*source), reversed(payloads_of(frames))) << count << pcapng;
        }
    }
}

TEST_F(ReceiverSource, ALongPreloadedCaptureIsReversedInEveryPass)
{
    const std::vector<frame> frames = many_tcp_frames(700);
    const messages_t one_pass = reversed(payloads_of(frames));
    for (const bool pcapng : {false, true}) {
        const auto source =
            open_preloaded(put("day", capture_bytes(frames, {pcapng})), 3);
        EXPECT_EQ(take(*source), one_pass + one_pass + one_pass);
        EXPECT_THAT(take(*source), IsEmpty());
    }
}

TEST_F(ReceiverSource, APreloadedCaptureCanBeEndless)
{
    const std::vector<frame> frames = many_tcp_frames(300);
    const messages_t one_pass = reversed(payloads_of(frames));
    const auto source = open_preloaded(put("day", capture_bytes(frames)), 0);
    EXPECT_EQ(take(*source, 900), one_pass + one_pass + one_pass);
}

TEST_F(ReceiverSource, ThePiecesOfAPreloadedPayloadAreReversedToo)
{
    std::vector<frame> frames;
    for (uint32_t i = 0; i < 501; ++i)
        frames.push_back(tcp(sample_bytes(i % 3 == 0 ? 2 * BLOCK + 1 : i + 1, i)));
    for (const bool pcapng : {false, true}) {
        const auto source =
            open_preloaded(put("day", capture_bytes(frames, {pcapng})), 2);
        const messages_t one_pass = reversed(payloads_of(frames));
        EXPECT_TRUE(take(*source) == one_pass + one_pass) << pcapng;
        EXPECT_EQ(source->notes().noted.split_payloads, 167U);
    }
}

TEST_F(ReceiverSource, FramesWithoutAMessageDoNotDisturbTheReversedOrder)
{
    std::vector<frame> frames;
    messages_t sent;
    for (uint32_t i = 0; i < 3000; ++i) {
        const std::string payload = i % 3 == 1 ? sample_bytes(20, i) : "";
        frames.push_back(i % 3 == 2 ? udp("other") : tcp(payload));
        if (!payload.empty())
            sent.push_back(payload);
    }
    const auto source = open_preloaded(put("day", capture_bytes(frames)), 2);
    EXPECT_EQ(take(*source), reversed(sent) + reversed(sent));
    EXPECT_EQ(source->notes().omitted.filtered, 1000U);
    EXPECT_EQ(source->notes().omitted.empty, 1000U);
}

// Two recordings written one behind the other are one capture of two sections.
TEST_F(ReceiverSource, APreloadedCaptureOfTwoSectionsIsReversedWholly)
{
    for (const auto& [first, second] :
         {std::pair{3U, 2U}, {300U, 2U}, {2U, 300U}, {400U, 700U}}) {
        const std::vector<frame> head = many_tcp_frames(first, 30);
        const std::vector<frame> tail = many_tcp_frames(second, 50);
        const auto source = open_preloaded(
            put("day", capture_bytes(head, {true}) + capture_bytes(tail, {true})), 2);
        const messages_t one_pass = reversed(payloads_of(head) + payloads_of(tail));
        EXPECT_EQ(take(*source), one_pass + one_pass) << first << ' ' << second;
        EXPECT_EQ(source->error(), "");
    }
}

// Its first section describes two interfaces, the second one; so the frames of the
// first section mean nothing to a reader that has come from the second.
std::string sections_that_differ(
    const std::vector<frame>& head, const std::vector<frame>& tail)
{
    const std::string one = capture_bytes({}, {true}); // section and interface, 28 + 20
    EXPECT_EQ(one.size(), 48U);
    std::string first = capture_bytes(head, {true});
    // Each frame's block names interface 1 in the first number of its body.
    for (size_t at = one.size(); at < first.size();) {
        const auto byte = [&](size_t i) {
            return static_cast<size_t>(static_cast<unsigned char>(first[at + i]));
        };
        first[at + 8] = '\1';
        at += byte(4) + 256 * byte(5) + 65536 * byte(6);
    }
    first.insert(one.size(), one.substr(28));
    return first + capture_bytes(tail, {true});
}

TEST_F(ReceiverSource, APreloadedCaptureWhoseSectionsDifferIsReversedWholly)
{
    std::vector<frame> head = many_tcp_frames(600, 30);
    for (size_t i = 0; i < head.size(); i += 3)
        head[i] = tcp(sample_bytes(2 * BLOCK + 1, static_cast<uint32_t>(i)));
    const std::vector<frame> tail = many_tcp_frames(300, 50);
    const auto source = open_preloaded(put("day", sections_that_differ(head, tail)), 2);
    const messages_t one_pass = reversed(payloads_of(head) + payloads_of(tail));
    EXPECT_EQ(take(*source), one_pass + one_pass);
    EXPECT_EQ(source->error(), "");
}

TEST_F(ReceiverSource, OfATruncatedPreloadedCaptureTheWholeFramesAreSent)
{
    const std::vector<frame> frames = many_tcp_frames(400);
    const std::string whole = capture_bytes(frames);
    const auto source = open_preloaded(put("day", whole.substr(0, whole.size() - 1)), 2);
    messages_t one_pass = payloads_of(frames);
    one_pass.pop_back();
    one_pass = reversed(one_pass);
    EXPECT_EQ(take(*source), one_pass + one_pass);
    EXPECT_EQ(source->error(), "");
    EXPECT_EQ(source->notes().noted.broken_files, 1U);
}

// All of it is read before anything is sent.
TEST_F(ReceiverSource, OfAPreloadedCaptureWithAnImpossibleFrameNothingIsSent)
{
    std::vector<frame> frames = many_tcp_frames(600);
    frames.push_back(with_lengths(tcp("abc"), 57, 262145));
    const auto source = open_preloaded(put("day", capture_bytes(frames)), 2);
    EXPECT_THAT(take(*source), IsEmpty());
    EXPECT_THAT(source->error(), HasSubstr("262145"));
}

// What is taken of a preloaded capture, when this happens to it behind the first `taken`
// messages: a part of the reversed order and then the end, with an error.
template <class event_t>
void expect_early_end(
    message_source& source, const messages_t& order, size_t taken, event_t event,
    const std::string& path)
{
    messages_t all = take(source, taken);
    event();
    EXPECT_EQ(source.error(), "");
    all = all + take(source);
    ASSERT_LT(all.size(), order.size());
    EXPECT_EQ(
        all,
        messages_t(order.begin(), order.begin() + static_cast<ptrdiff_t>(all.size())));
    EXPECT_THAT(source.error(), HasSubstr(path));
    EXPECT_THAT(take(source), IsEmpty());
    EXPECT_EQ(source.fraction(), std::nullopt);
}

TEST_F(ReceiverSource, APreloadedCaptureThatIsEmptiedMeanwhileEndsTheSource)
{
    const std::vector<frame> frames = many_tcp_frames(600);
    const messages_t order = reversed(payloads_of(frames));
    for (const size_t taken : {0U, 1U, 100U, 344U}) {
        const std::string day = put("day", capture_bytes(frames));
        expect_early_end(
            *open_preloaded(day, 2), order, taken,
            [&] { std::filesystem::resize_file(day, 0); }, day);
    }
}

// In the second pass nothing is left of it.
TEST_F(ReceiverSource, APreloadedCaptureThatIsEmptiedBetweenPassesEndsTheSource)
{
    const std::vector<frame> frames = many_tcp_frames(600);
    const messages_t order = reversed(payloads_of(frames));
    const std::string day = put("day", capture_bytes(frames));
    expect_early_end(
        *open_preloaded(day, 2), order + order, 600,
        [&] { std::filesystem::resize_file(day, 0); }, day);
}

// The part that begins in the first section and ends in the second is read from the start
// again; the one behind it has 88 messages.
TEST_F(ReceiverSource, APreloadedCaptureOfTwoSectionsThatIsGoneMeanwhileEndsTheSource)
{
    const std::vector<frame> head = many_tcp_frames(300, 30);
    const std::vector<frame> tail = many_tcp_frames(300, 50);
    const messages_t order = reversed(payloads_of(head) + payloads_of(tail));
    for (const size_t taken : {0U, 1U, 88U}) {
        const std::string day = put("day", sections_that_differ(head, tail));
        expect_early_end(
            *open_preloaded(day, 2), order, taken, [&] { std::filesystem::remove(day); },
            day);
    }
}

TEST_F(ReceiverSource, ACaptureReaderWithNothingOpenHasNothing)
{
    capture_reader reader;
    bytes_view piece;
    EXPECT_FALSE(reader.next(piece));
    EXPECT_EQ(reader.open(files_.file("gone"), "udp"), capture_reader::opened::failed);
    EXPECT_FALSE(reader.next(piece));
    EXPECT_THAT(reader.error(), HasSubstr(files_.file("gone")));
}

TEST_F(ReceiverSource, APreloadedFileThatIsNoCaptureIsAnError)
{
    const auto source = open_preloaded(put("day", "text"));
    EXPECT_THAT(take(*source), IsEmpty());
    EXPECT_THAT(source->error(), HasSubstr(files_.file("day")));
}

// No filter can look into frames of this link type.
TEST_F(ReceiverSource, APreloadedCaptureThatRefusesTheFilterIsReadUnfiltered)
{
    capture_format odd;
    odd.link_type = 187;
    std::vector<frame> frames = many_tcp_frames(300);
    const auto source = open_preloaded(put("day", capture_bytes(frames, odd)), 2);
    const messages_t one_pass = reversed(payloads_of(frames));
    EXPECT_EQ(take(*source), one_pass + one_pass);
    EXPECT_EQ(source->notes().omitted.refused_files, 0U);
    EXPECT_EQ(source->notes().omitted.filtered, 0U);
}

TEST_F(ReceiverSource, AFolderOfOneCaptureIsPreloaded)
{
    put("day", capture_bytes({tcp("a"), tcp("b")}));
    EXPECT_THAT(take(*open_preloaded(folder())), ElementsAre("b", "a"));
}

TEST_F(ReceiverSource, OfAPreloadedFolderOfTwoCapturesNothingIsSent)
{
    put("a", capture_bytes({tcp("a")}));
    put("b", "no capture, but nobody looks");
    const auto source = open_preloaded(folder());
    EXPECT_THAT(take(*source), IsEmpty());
    EXPECT_EQ(source->error(), "");
}

TEST_F(ReceiverSource, APreloadedCaptureShowsItsProgress)
{
    const std::string day = put("day", capture_bytes(many_tcp_frames(1500)));
    expect_whole_way(*open_preloaded(day));
    expect_whole_way(*open_preloaded(day, 3));
}

TEST_F(ReceiverSource, NotesOfAPreloadedCaptureCountOnePass)
{
    std::vector<frame> frames = many_tcp_frames(600);
    frames.push_back(udp("other"));
    const auto source = open_preloaded(put("day", capture_bytes(frames)), 3);
    (void)take(*source);
    EXPECT_EQ(source->notes().files, 1U);
    EXPECT_EQ(source->notes().omitted.filtered, 1U);
    EXPECT_THAT(source->notes().sentences, IsEmpty());
}

// ------------------------------------------------------------- the sender's readers

// What the sender's data-file reader gives, read as the sender reads it.
messages_t sent_of_data(const std::string& path)
{
    vesk::details::file_helper reader;
    reader.open(path, std::ios_base::in | std::ios_base::binary);
    messages_t messages;
    do {
        std::string block(BLOCK, '\0');
        size_t length = block.size();
        (void)reader.read(block.data(), length);
        block.resize(length);
        if (length != 0)
            messages.push_back(block);
    } while (!reader.file_end());
    return messages;
}

// The same of a capture; its reader's remarks are not what is compared.
messages_t sent_of_capture(const std::string& path, const std::string& filter)
{
    const support::output_capture quiet;
    testing::internal::CaptureStderr();
    messages_t messages;
    {
        vesk::details::pcap_helper reader;
        (void)reader.open(path, filter);
        std::string payload(BLOCK, '\0');
        size_t length = 0;
        while (reader.read(payload.data(), length)) {
            if (length != 0)
                messages.push_back(payload.substr(0, length));
        }
    }
    (void)testing::internal::GetCapturedStderr();
    return messages;
}

TEST_F(ReceiverSource, DataFilesGiveWhatTheSendersReaderGives)
{
    for (const size_t size : {0UL, 1UL, 10240UL, 10241UL, 25000UL, 122880UL, 130000UL}) {
        const std::string path = put("day", sample_bytes(size));
        EXPECT_EQ(take(*open_data(path)), sent_of_data(path)) << size;
        EXPECT_EQ(take(*open_data(path, 1, true)), reversed(sent_of_data(path))) << size;
    }
}

// Frames of every kind and every snapshot length, so that each rule of the cut
// is met at its edges.
std::vector<frame> odd_frames()
{
    std::vector<frame> frames;
    support::frame_parts parts;
    for (const size_t options : {0U, 4U, 40U}) {
        for (const bool vlan : {false, true}) {
            parts.payload = sample_bytes(120, static_cast<uint32_t>(options) + 1);
            parts.ip_options = std::string(options, '\1');
            parts.tcp_options = std::string(options, '\1');
            parts.padding = std::string(options / 4, '\0');
            parts.vlan = vlan;
            parts.acknowledgement = 0x50607080;
            frames.push_back(udp_frame(parts));
            frames.push_back(tcp_frame(parts));
            frames.push_back(udp_ipv6_frame(parts));
        }
    }
    for (size_t captured = 15; captured < 100; ++captured) {
        frames.push_back(support::truncated(udp_frame({sample_bytes(80)}), captured));
        frames.push_back(support::truncated(tcp_frame({sample_bytes(80)}), captured));
    }
    for (const size_t size : {0UL, 1UL, 10240UL, 10241UL, 20480UL, 30000UL}) {
        frames.push_back(udp(sample_bytes(size, 3)));
        frames.push_back(tcp(sample_bytes(size, 4)));
    }
    frames.push_back(with_lengths(udp("abcdef"), 48, 45));
    return frames;
}

TEST_F(ReceiverSource, CapturesGiveWhatTheSendersReaderGives)
{
    for (const bool pcapng : {false, true}) {
        const std::string path = put("day", capture_bytes(odd_frames(), {pcapng}));
        for (const char* filter :
             {"udp", "tcp", " ip and udp ", "udp and port 5000", "tcp or udp",
              "udp or tcp or vlan", "udp or greater 0", "tcp or greater 0"}) {
            const messages_t sent = sent_of_capture(path, filter);
            EXPECT_FALSE(sent.empty()) << filter;
            EXPECT_EQ(take(*open_capture(path, filter)), sent) << filter;
        }
        EXPECT_EQ(take(*open_preloaded(path)), reversed(sent_of_capture(path, "tcp")));
    }
}

TEST_F(ReceiverSource, BrokenCapturesGiveWhatTheSendersReaderGives)
{
    const std::string whole = capture_bytes(odd_frames());
    for (const size_t size : {24UL, 39UL, 40UL, 41UL, 200UL, 4000UL, whole.size() - 1}) {
        const std::string path = put("day", whole.substr(0, size));
        EXPECT_EQ(take(*open_capture(path, "udp")), sent_of_capture(path, "udp")) << size;
    }
}

} // namespace receiver_source_test
