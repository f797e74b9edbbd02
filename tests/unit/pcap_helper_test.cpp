// The capture reader: filters, the description line, the payload cut with its
// fixed positions, odd and hostile captures, moves and reuse.
#include <algorithm>
#include <filesystem>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common.h"
#include "support/call_seam.h"
#include "support/capture_builder.h"
#include "support/scratch_dir.h"
#include "support/thrown.h"

namespace pcap_helper_test {

namespace call = support::call;
using support::capture_format;
using support::frame;
using support::sample_bytes;
using support::tcp_frame;
using support::text_thrown_by;
using support::truncated;
using support::udp_frame;
using support::with_lengths;
using testing::ElementsAre;
using vesk::details::pcap_helper;
using vesk::details::vesk_ex;
using payloads_t = std::vector<std::string>;

constexpr char INVALID_LENGTH[] = "safe_pcap_next ERROR: Invalid packet length.";
// Both name their transport, but libpcap knows no upper-case words: the capture
// is then open without a filter.
constexpr char UNFILTERED_UDP[] = "UDP and port 5000";
constexpr char UNFILTERED_TCP[] = "TCP and port 5000";

// Gives the reader each frame in memory of exactly the captured length, where a
// sanitizer sees any access behind it.
class exact_frames {
public:
    exact_frames()
        : hook_([this](pcap_t* pd, pcap_pkthdr* header) { return copy(pd, header); })
    {}

private:
    const u_char* copy(pcap_t* pd, pcap_pkthdr* header)
    {
        const u_char* original = support::real<call::pcap_next>(pd, header);
        if (original == nullptr)
            return nullptr;
        frame_.reset(new u_char[header->caplen]);
        std::copy_n(original, header->caplen, frame_.get());
        return frame_.get();
    }

    std::unique_ptr<u_char[]> frame_;
    support::scoped_call<call::pcap_next> hook_;
};

// Takes what is written to the two standard streams in its scope. The descriptors
// stay as they are, for the reports of a failing test and of a sanitizer.
class captured_streams {
public:
    captured_streams()
        : saved_output_(std::cout.rdbuf(output_.rdbuf())),
          saved_errors_(std::cerr.rdbuf(errors_.rdbuf()))
    {}
    ~captured_streams()
    {
        std::cout.rdbuf(saved_output_); // a failed state ends here, too
        std::cerr.rdbuf(saved_errors_);
    }
    captured_streams(const captured_streams&) = delete;
    captured_streams& operator=(const captured_streams&) = delete;

    std::string output() const { return output_.str(); }
    std::string errors() const { return errors_.str(); }

private:
    std::ostringstream output_;
    std::ostringstream errors_;
    std::streambuf* saved_output_;
    std::streambuf* saved_errors_;
};

// The next payload; the buffer is a heap block of its exact size.
std::string read_one(pcap_helper& reader)
{
    std::vector<char> buffer(vesk::MAX_BUFFER_SIZE);
    size_t length = 99999;
    if (!reader.read(buffer.data(), length))
        return "(end)";
    EXPECT_LE(length, buffer.size());
    return std::string(buffer.data(), length);
}

payloads_t read_all(pcap_helper& reader)
{
    std::vector<char> buffer(vesk::MAX_BUFFER_SIZE);
    payloads_t payloads;
    size_t length = 0;
    while (reader.read(buffer.data(), length)) {
        EXPECT_LE(length, buffer.size());
        payloads.emplace_back(buffer.data(), std::min(length, buffer.size()));
    }
    return payloads;
}

class PcapHelper : public testing::Test {
protected:
    std::string save(
        const std::vector<frame>& frames, const capture_format& format = {},
        const char* name = "a.pcap")
    {
        const std::string path = directory_.file(name);
        support::write_file(path, support::capture_bytes(frames, format));
        return path;
    }

    // All payloads of a capture of these frames.
    payloads_t cut(
        const std::vector<frame>& frames, const std::string& filter,
        const capture_format& format = {})
    {
        captured_streams quiet;
        pcap_helper reader;
        reader.open(save(frames, format), filter);
        return read_all(reader);
    }

    std::string description_of(const capture_format& format)
    {
        captured_streams streams;
        pcap_helper().open(save({}, format), "udp");
        return streams.output();
    }

    std::string described(const std::string& rest) const
    {
        return "reading from file: " + directory_.file("a.pcap") + ", link-type " + rest +
               "\n";
    }

    support::scratch_dir directory_;
};

// ------------------------------------------------------------------- filters

TEST_F(PcapHelper, AFilterIsStoredTrimmedWithItsLettersAsTheyAre)
{
    pcap_helper reader;
    std::string filter = "  UDP and port 5000\n";
    reader.set_filter(filter);

    std::string next = "tcp";
    reader.set_filter(next);
    EXPECT_EQ(next, "UDP and port 5000"); // the swap hands the stored one back
}

TEST_F(PcapHelper, TheFirstFilterSwapsAgainstAnEmptyText)
{
    pcap_helper reader;
    std::string filter = "udp";
    reader.set_filter(filter);
    EXPECT_EQ(filter, "");
}

TEST_F(PcapHelper, AnEmptyFilterIsRefusedBeforeAnyFileIsOpened)
{
    pcap_helper reader;
    EXPECT_EQ(
        text_thrown_by([&] { reader.open(directory_.file("missing"), ""); }),
        "filter condition error!");
}

TEST_F(PcapHelper, AFilterOfBlanksNamesNoTransport)
{
    pcap_helper reader;
    std::string filter = " \t\r\n";
    EXPECT_EQ(
        text_thrown_by([&] { reader.set_filter(filter); }),
        "Please specify the protocol type: tcp or udp!");
    EXPECT_EQ(filter, "");
}

TEST_F(PcapHelper, AFilterWithoutATransportIsRefusedBeforeAnyFileIsOpened)
{
    pcap_helper reader;
    EXPECT_EQ(
        text_thrown_by([&] { reader.open(directory_.file("missing"), "port 9000"); }),
        "Please specify the protocol type: tcp or udp!");
}

TEST_F(PcapHelper, ARefusedFilterComesBackTrimmedAndThePreviousOneStays)
{
    pcap_helper reader;
    std::string accepted = "udp";
    reader.set_filter(accepted);

    std::string refused = " port 9000 ";
    EXPECT_THROW(reader.set_filter(refused), vesk_ex);
    EXPECT_EQ(refused, "port 9000");

    std::string next = "tcp";
    reader.set_filter(next);
    EXPECT_EQ(next, "udp");
}

TEST_F(PcapHelper, OnlyFramesThatPassTheFilterAreRead)
{
    const payloads_t payloads =
        cut({udp_frame({.payload = "wanted", .destination_port = 5000}),
             udp_frame({.payload = "other port", .destination_port = 5001}),
             tcp_frame({.payload = "other transport", .destination_port = 5000})},
            "udp and port 5000");
    EXPECT_THAT(payloads, ElementsAre("wanted"));
}

TEST_F(PcapHelper, TheFirstTransportNamedDecidesTheCut)
{
    // A UDP frame cut as TCP: byte 46 is the fifth byte of its payload.
    const frame udp =
        udp_frame({.payload = std::string("....\x50", 5) + sample_bytes(60)});
    EXPECT_THAT(cut({udp}, "tcp or udp"), ElementsAre(udp.payload.substr(12)));
    EXPECT_THAT(cut({udp}, "udp or tcp"), ElementsAre(udp.payload));
}

TEST_F(PcapHelper, ANetworkMaskOfZeroStillLetsBroadcastFiltersCompile)
{
    const payloads_t payloads =
        cut({udp_frame({.payload = "to all", .destination_address = 0xFFFFFFFF}),
             udp_frame({.payload = "to a subnet", .destination_address = 0x0AFFFFFF})},
            "udp and ip broadcast");
    EXPECT_THAT(payloads, ElementsAre("to all"));
}

// --------------------------------------------------------------- description

TEST_F(PcapHelper, ACaptureIsDescribedInOneLine)
{
    EXPECT_EQ(description_of({}), described("EN10MB Ethernet, snapshot lengthL: 262144"));
}

TEST_F(PcapHelper, TheSnapshotLengthIsTheCapturesOwn)
{
    EXPECT_EQ(
        description_of({.snapshot_length = 96}),
        described("EN10MB Ethernet, snapshot lengthL: 96"));
}

TEST_F(PcapHelper, AnotherLinkTypeIsDescribedByItsNames)
{
    EXPECT_EQ(
        description_of({.link_type = 101}),
        described("RAW Raw IP, snapshot lengthL: 262144"));
}

TEST_F(PcapHelper, ALinkTypeWithoutANamePrintsItsNumber)
{
    EXPECT_EQ(
        description_of({.link_type = 147}), described("147, snapshot lengthL: 262144"));
}

TEST_F(PcapHelper, AMissingDescriptionLeavesStandardOutputFailed)
{
    const std::string path = save({});
    const support::scoped_call<call::pcap_datalink_val_to_description> nameless(
        [](int) -> const char* { return nullptr; });
    captured_streams streams;
    pcap_helper reader;

    const bool opened = reader.open(path, "udp");
    const bool failed = std::cout.bad();
    std::cout << "more" << std::endl;

    EXPECT_TRUE(opened);
    EXPECT_TRUE(failed);
    EXPECT_EQ(streams.output(), "reading from file: " + path + ", link-type EN10MB ");
}

// ------------------------------------------------------------ failures to open

TEST_F(PcapHelper, AMissingCaptureIsReportedInLibpcapsWords)
{
    const std::string path = directory_.file("missing");
    char reason[PCAP_ERRBUF_SIZE];
    ASSERT_EQ(support::real<call::pcap_open_offline>(path.c_str(), reason), nullptr);

    pcap_helper reader;
    EXPECT_EQ(
        text_thrown_by([&] { reader.open(path, "udp"); }),
        std::string("Open pcap file failed! Error message: ") + reason);
}

TEST_F(PcapHelper, AFileThatIsNoCaptureIsReportedInLibpcapsWords)
{
    const std::string path = directory_.file("text");
    support::write_file(path, "this is a text of more than 24 bytes");
    char reason[PCAP_ERRBUF_SIZE];
    ASSERT_EQ(support::real<call::pcap_open_offline>(path.c_str(), reason), nullptr);

    pcap_helper reader;
    EXPECT_EQ(
        text_thrown_by([&] { reader.open(path, "udp"); }),
        std::string("Open pcap file failed! Error message: ") + reason);
}

TEST_F(PcapHelper, AReaderWorksAgainAfterACaptureThatDidNotOpen)
{
    const std::string path = save({udp_frame({.payload = "good"})});
    captured_streams quiet;
    pcap_helper reader;

    EXPECT_THROW(reader.open(directory_.file("missing"), "udp"), vesk_ex);
    reader.close(); // nothing is open: no effect
    EXPECT_TRUE(reader.open(path, "udp"));
    EXPECT_THAT(read_all(reader), ElementsAre("good"));
}

// What libpcap itself says about an expression on Ethernet.
std::string compile_error(const char* expression)
{
    const std::unique_ptr<pcap_t, decltype(&::pcap_close)> dead(
        ::pcap_open_dead(DLT_EN10MB, 262144), &::pcap_close);
    bpf_program program{};
    EXPECT_LT(::pcap_compile(dead.get(), &program, expression, 1, 0), 0);
    return ::pcap_geterr(dead.get());
}

TEST_F(PcapHelper, AFilterThatDoesNotCompileIsReportedAndTheCaptureStaysOpenUnfiltered)
{
    const std::string path = save(
        {udp_frame({.payload = "port 1", .destination_port = 1}),
         udp_frame({.payload = "port 2", .destination_port = 2})});
    captured_streams streams;
    pcap_helper reader;

    EXPECT_FALSE(reader.open(path, UNFILTERED_UDP));
    EXPECT_THAT(read_all(reader), ElementsAre("port 1", "port 2"));
    EXPECT_EQ(
        streams.errors(),
        "compile fileter failed! " + compile_error(UNFILTERED_UDP) + "\n");
    EXPECT_EQ(streams.output(), described("EN10MB Ethernet, snapshot lengthL: 262144"));
}

TEST_F(PcapHelper, FiltersAreOptimisedSoOneThatCannotMatchIsRefused)
{
    const std::string path = save({});
    captured_streams streams;
    EXPECT_FALSE(pcap_helper().open(path, "udp and tcp"));
    EXPECT_EQ(
        streams.errors(), "compile fileter failed! expression rejects all packets\n");
}

TEST_F(PcapHelper, AFilterThatCannotBeInstalledIsReportedAndTheCaptureStaysOpenUnfiltered)
{
    const std::string path = save(
        {udp_frame({.payload = "port 1", .destination_port = 1}),
         udp_frame({.payload = "port 2", .destination_port = 2})});
    // An empty program in place of the right one: libpcap refuses it itself.
    const support::scoped_call<call::pcap_setfilter> refuse([](pcap_t* pd, bpf_program*) {
        bpf_program empty{};
        return support::real<call::pcap_setfilter>(pd, &empty);
    });
    captured_streams streams;
    pcap_helper reader;

    EXPECT_FALSE(reader.open(path, "udp and port 1"));
    EXPECT_THAT(read_all(reader), ElementsAre("port 1", "port 2"));
    EXPECT_EQ(streams.errors(), "set fileter failed! BPF program is not valid\n");
}

TEST_F(PcapHelper, ACaptureLeftOpenByARefusedFilterDoesNotDisturbTheNextOne)
{
    const std::string first = save({udp_frame({.payload = "first"})}, {}, "first.pcap");
    const std::string second =
        save({udp_frame({.payload = "second"})}, {}, "second.pcap");
    captured_streams quiet;
    pcap_helper reader;

    EXPECT_FALSE(reader.open(first, UNFILTERED_UDP));
    EXPECT_TRUE(reader.open(second, "udp"));
    EXPECT_THAT(read_all(reader), ElementsAre("second"));
}

TEST_F(PcapHelper, EveryCaptureThatLibpcapOpensIsClosedInTheEnd)
{
    const std::string path = save({udp_frame({.payload = "x"})});
    std::set<std::string> before;
    for (const auto& each : std::filesystem::directory_iterator("/proc/self/fd"))
        before.insert(each.path().string());
    {
        captured_streams quiet;
        pcap_helper reader;
        EXPECT_FALSE(reader.open(path, UNFILTERED_UDP));
        EXPECT_FALSE(reader.open(path, UNFILTERED_UDP));
        EXPECT_TRUE(reader.open(path, "udp"));
    }
    std::set<std::string> after;
    for (const auto& each : std::filesystem::directory_iterator("/proc/self/fd"))
        after.insert(each.path().string());
    EXPECT_EQ(after, before);
}

// ------------------------------------------------------------------- formats

struct format_case {
    const char* name;
    capture_format format;

    friend void PrintTo(const format_case& test, std::ostream* out) { *out << test.name; }
};

class PcapHelperFormat : public PcapHelper,
                         public testing::WithParamInterface<format_case> {};

TEST_P(PcapHelperFormat, YieldsThePayloadsInCaptureOrder)
{
    const frame one = udp_frame({.payload = sample_bytes(60, 1)});
    const frame two =
        udp_frame({.payload = sample_bytes(61, 2), .ip_options = "\1\1\1\1"});
    EXPECT_THAT(
        cut({one, two}, "udp", GetParam().format), ElementsAre(one.payload, two.payload));
}

INSTANTIATE_TEST_SUITE_P(
    Formats, PcapHelperFormat,
    testing::Values(
        format_case{"LittleEndianMicroseconds", {}},
        format_case{"BigEndianMicroseconds", {.big_endian = true}},
        format_case{"LittleEndianNanoseconds", {.nanoseconds = true}},
        format_case{"BigEndianNanoseconds", {.big_endian = true, .nanoseconds = true}},
        format_case{"LittleEndianPcapng", {.pcapng = true}},
        format_case{"BigEndianPcapng", {.pcapng = true, .big_endian = true}},
        format_case{"PcapngNanoseconds", {.pcapng = true, .nanoseconds = true}}),
    [](const auto& each) { return each.param.name; });

// --------------------------------------------------------------- payload cut

TEST_F(PcapHelper, AUdpPayloadStartsAtByte42)
{
    const frame udp = udp_frame({.payload = sample_bytes(58)});
    ASSERT_EQ(udp.bytes.size(), 100U);
    EXPECT_THAT(cut({udp}, "udp"), ElementsAre(udp.bytes.substr(42)));
}

TEST_F(PcapHelper, IpOptionsMoveAUdpPayload)
{
    const frame longest =
        udp_frame({.payload = sample_bytes(50), .ip_options = std::string(40, '\1')});
    ASSERT_EQ(longest.bytes.size(), 82U + 50U);
    EXPECT_THAT(cut({longest}, "udp"), ElementsAre(longest.bytes.substr(82)));
}

TEST_F(PcapHelper, TheTcpDataOffsetMovesATcpPayload)
{
    const frame tcp =
        tcp_frame({.payload = sample_bytes(34), .tcp_options = std::string(12, '\1')});
    ASSERT_EQ(tcp.bytes.size(), 100U);
    ASSERT_EQ(tcp.bytes[46], '\x80');
    EXPECT_THAT(cut({tcp}, "tcp"), ElementsAre(tcp.bytes.substr(66)));
}

TEST_F(PcapHelper, TheLowerHalfOfTheDataOffsetByteDoesNotCount)
{
    frame tcp = tcp_frame({.payload = "payload"});
    tcp.bytes[46] = '\x5F';
    EXPECT_THAT(cut({tcp}, "tcp"), ElementsAre("payload"));
}

TEST_F(PcapHelper, TheDataOffsetIsTakenAtByte46EvenBehindIpOptions)
{
    // With four bytes of IP options that byte is the acknowledgement's first.
    const frame tcp = tcp_frame(
        {.payload = sample_bytes(80),
         .ip_options = "\1\1\1\1",
         .acknowledgement = 0x80000000});
    EXPECT_THAT(cut({tcp}, "tcp"), ElementsAre(tcp.bytes.substr(14 + 24 + 32)));
}

TEST_F(PcapHelper, APureAcknowledgementYieldsAnEmptyPayload)
{
    EXPECT_THAT(
        cut({tcp_frame({}), tcp_frame({.payload = "data"})}, "tcp"),
        ElementsAre("", "data"));
}

TEST_F(PcapHelper, EthernetPaddingGoesOutWithThePayload)
{
    const frame padded = udp_frame({.payload = "ab", .padding = std::string(16, '\0')});
    EXPECT_THAT(cut({padded}, "udp"), ElementsAre("ab" + std::string(16, '\0')));
}

TEST_F(PcapHelper, AnIpv6FrameIsCutAtTheFixedPlacesToo)
{
    // Byte 14 is 0x60: no IPv4 header at all, eight bytes of UDP header.
    const frame ipv6 = support::udp_ipv6_frame({.payload = "payload"});
    EXPECT_THAT(cut({ipv6}, "udp"), ElementsAre(ipv6.bytes.substr(22)));
}

TEST_F(PcapHelper, AVlanTagIsNotSteppedOver)
{
    // Byte 14 is the tag's first byte, zero here.
    const frame tagged = udp_frame({.payload = "payload", .vlan = true});
    EXPECT_THAT(cut({tagged}, "vlan and udp"), ElementsAre(tagged.bytes.substr(22)));
    EXPECT_THAT(cut({tagged}, "udp"), ElementsAre());
}

TEST_F(PcapHelper, AnotherLinkTypeIsCutAsIfItWereEthernet)
{
    // Byte 14 is in the sender's address, 10.0.0.1: zero.
    frame raw = udp_frame({.payload = sample_bytes(50)});
    raw.bytes.erase(0, 14);
    raw = with_lengths(
        raw, static_cast<uint32_t>(raw.bytes.size()),
        static_cast<uint32_t>(raw.bytes.size()));
    EXPECT_THAT(cut({raw}, "udp", {.link_type = 101}), ElementsAre(raw.bytes.substr(22)));
}

TEST_F(PcapHelper, ATruncatedFrameYieldsWhatWasCapturedOfItsPayload)
{
    const frame udp = truncated(udp_frame({.payload = sample_bytes(200)}), 96);
    ASSERT_EQ(udp.payload.size(), 54U);
    EXPECT_THAT(cut({with_lengths(udp, 96, 242)}, "udp"), ElementsAre(udp.payload));
}

TEST_F(PcapHelper, ACapturedLengthBeyondTheWireLengthIsCutToIt)
{
    const frame udp = udp_frame({.payload = sample_bytes(58)});
    EXPECT_THAT(
        cut({with_lengths(udp, 100, 80)}, "udp"),
        ElementsAre(udp.payload.substr(0, 80 - 42)));
}

TEST_F(PcapHelper, TheEndOfTheCaptureTouchesNeitherLengthNorBuffer)
{
    const std::string path = save({});
    captured_streams quiet;
    pcap_helper reader;
    reader.open(path, "udp");

    std::string buffer(vesk::MAX_BUFFER_SIZE, '#');
    size_t length = 4711;
    EXPECT_FALSE(reader.read(buffer.data(), length));
    EXPECT_EQ(length, 4711U);
    EXPECT_EQ(buffer, std::string(vesk::MAX_BUFFER_SIZE, '#'));
}

TEST_F(PcapHelper, APayloadTouchesNothingBehindItsLength)
{
    const std::string path = save({udp_frame({.payload = "abc"})});
    captured_streams quiet;
    pcap_helper reader;
    reader.open(path, "udp");

    std::string buffer(vesk::MAX_BUFFER_SIZE, '#');
    size_t length = 0;
    EXPECT_TRUE(reader.read(buffer.data(), length));
    EXPECT_EQ(buffer, "abc" + std::string(vesk::MAX_BUFFER_SIZE - 3, '#'));
}

// ------------------------------------------------------------ frame lengths

TEST_F(PcapHelper, AWireLengthOf262144IsAccepted)
{
    const frame udp = udp_frame({.payload = "payload"});
    EXPECT_THAT(cut({with_lengths(udp, 49, 262144)}, "udp"), ElementsAre("payload"));
}

TEST_F(PcapHelper, AFrameOf262144CapturedBytesIsReadWhole)
{
    const frame largest = udp_frame({.payload = sample_bytes(262144 - 42)});
    const payloads_t pieces = cut({largest}, "udp");

    std::string whole;
    for (const std::string& piece : pieces)
        whole += piece;
    EXPECT_EQ(pieces.size(), 26U); // ceiling of 262102 / 10240
    EXPECT_TRUE(whole == largest.payload);
}

TEST_F(PcapHelper, ALongerWireLengthThrowsAndTheNextFrameFollows)
{
    const std::string path = save(
        {with_lengths(udp_frame({.payload = "payload"}), 49, 262145),
         udp_frame({.payload = "next"})});
    captured_streams quiet;
    pcap_helper reader;
    reader.open(path, "udp");

    EXPECT_EQ(text_thrown_by([&] { read_one(reader); }), INVALID_LENGTH);
    EXPECT_EQ(read_one(reader), "next");
}

TEST_F(PcapHelper, AWireLengthOfZeroThrows)
{
    const std::string path =
        save({with_lengths(udp_frame({.payload = "payload"}), 49, 0)});
    captured_streams quiet;
    pcap_helper reader;
    reader.open(path, "udp");
    EXPECT_EQ(text_thrown_by([&] { read_one(reader); }), INVALID_LENGTH);
}

TEST_F(PcapHelper, ACapturedLengthOfZeroThrows)
{
    const std::string path = save({with_lengths({}, 0, 60)});
    captured_streams quiet;
    pcap_helper reader;
    reader.open(path, UNFILTERED_UDP);
    EXPECT_EQ(text_thrown_by([&] { read_one(reader); }), INVALID_LENGTH);
}

TEST_F(PcapHelper, ARecordCutOffByTheEndOfTheFileEndsTheCapture)
{
    const std::string path = directory_.file("a.pcap");
    const std::string whole = support::capture_bytes(
        {udp_frame({.payload = "first"}), udp_frame({.payload = "second"})});
    support::write_file(path, whole.substr(0, whole.size() - 1));

    captured_streams quiet;
    pcap_helper reader;
    reader.open(path, "udp");
    EXPECT_THAT(read_all(reader), ElementsAre("first"));
}

TEST_F(PcapHelper, TheFrameReaderChecksLengthsOfAnyCaptureGivenToIt)
{
    const std::string path =
        save({with_lengths(udp_frame({.payload = sample_bytes(58)}), 100, 80)});
    char reason[PCAP_ERRBUF_SIZE];
    const std::unique_ptr<pcap_t, decltype(&::pcap_close)> capture(
        ::pcap_open_offline(path.c_str(), reason), &::pcap_close);
    ASSERT_NE(capture, nullptr) << reason;

    pcap_helper reader;
    pcap_pkthdr header{};
    EXPECT_NE(reader.safe_pcap_next(capture.get(), &header), nullptr);
    EXPECT_EQ(header.len, 80U);
    EXPECT_EQ(header.caplen, 80U);
    EXPECT_EQ(reader.safe_pcap_next(capture.get(), &header), nullptr);
}

// -------------------------------------------- frames shorter than their headers

TEST_F(PcapHelper, AFrameShorterThanItsUdpHeadersYieldsAnEmptyPayload)
{
    const exact_frames exact;
    const frame whole = udp_frame({.payload = "payload"});
    // 24 bytes are the least that the filter can tell UDP by.
    EXPECT_THAT(
        cut({truncated(whole, 24), truncated(whole, 41), truncated(whole, 42),
             truncated(whole, 43)},
            "udp"),
        ElementsAre("", "", "", "p"));
}

TEST_F(PcapHelper, AFrameThatEndsBeforeTheIpHeaderYieldsAnEmptyPayload)
{
    const exact_frames exact;
    const frame whole = udp_frame({.payload = "payload"});
    EXPECT_THAT(
        cut({truncated(whole, 1), truncated(whole, 14), truncated(whole, 15)},
            UNFILTERED_UDP),
        ElementsAre("", "", ""));
}

TEST_F(PcapHelper, AFrameThatEndsBeforeTheDataOffsetYieldsAnEmptyPayload)
{
    const exact_frames exact;
    const frame whole = tcp_frame({.payload = "payload"});
    EXPECT_THAT(
        cut({truncated(whole, 14), truncated(whole, 46), truncated(whole, 47),
             truncated(whole, 53), truncated(whole, 54), truncated(whole, 55)},
            UNFILTERED_TCP),
        ElementsAre("", "", "", "", "", "p"));
}

TEST_F(PcapHelper, AFrameThatEndsWithTheDataOffsetYieldsWhatIsBehindAnEmptyTcpHeader)
{
    const exact_frames exact;
    frame tcp = tcp_frame({.payload = "payload"});
    tcp.bytes[46] = '\0';
    EXPECT_THAT(
        cut({truncated(tcp, 47)}, UNFILTERED_TCP), ElementsAre(tcp.bytes.substr(34, 13)));
}

TEST_F(PcapHelper, AHeaderLengthThatPointsBehindTheFrameYieldsAnEmptyPayload)
{
    const exact_frames exact;
    frame udp = udp_frame({.payload = "payload"});
    udp.bytes[14] = '\x4F'; // 60 bytes of IP header in a frame of 49
    EXPECT_THAT(cut({udp}, "udp"), ElementsAre(""));
}

TEST_F(PcapHelper, AWireLengthBelowTheHeadersYieldsAnEmptyPayload)
{
    const frame udp = udp_frame({.payload = "payload"});
    EXPECT_THAT(cut({with_lengths(udp, 49, 41)}, "udp"), ElementsAre(""));
}

// --------------------------------------------------- payloads beyond a message

TEST_F(PcapHelper, APayloadOf10240BytesIsOneMessage)
{
    const frame udp = udp_frame({.payload = sample_bytes(10240)});
    EXPECT_THAT(cut({udp}, "udp"), ElementsAre(udp.payload));
}

TEST_F(PcapHelper, ALongerPayloadComesInPiecesAndNothingIsLost)
{
    const exact_frames exact;
    const frame udp = udp_frame({.payload = sample_bytes(20481)});
    EXPECT_THAT(
        cut({udp, udp_frame({.payload = "next"})}, "udp"),
        ElementsAre(
            udp.payload.substr(0, 10240), udp.payload.substr(10240, 10240),
            udp.payload.substr(20480), "next"));
}

TEST_F(PcapHelper, APayloadOfTwoFullMessagesLeavesNoEmptyOne)
{
    const frame udp = udp_frame({.payload = sample_bytes(20480)});
    EXPECT_THAT(
        cut({udp}, "udp"),
        ElementsAre(udp.payload.substr(0, 10240), udp.payload.substr(10240)));
}

TEST_F(PcapHelper, TheRestOfALongPayloadIsDroppedByClose)
{
    const std::string path = save(
        {udp_frame({.payload = sample_bytes(10241)}), udp_frame({.payload = "next"})});
    captured_streams quiet;
    pcap_helper reader;
    reader.open(path, "udp");
    read_one(reader);

    reader.close();
    reader.open(path, "udp");
    EXPECT_EQ(read_one(reader).size(), 10240U);
}

TEST_F(PcapHelper, TheRestOfALongPayloadIsDroppedByOpen)
{
    const std::string large =
        save({udp_frame({.payload = sample_bytes(10241)})}, {}, "large");
    const std::string small = save({udp_frame({.payload = "small"})}, {}, "small");
    captured_streams quiet;
    pcap_helper reader;
    reader.open(large, "udp");
    read_one(reader);

    reader.open(small, "udp");
    EXPECT_THAT(read_all(reader), ElementsAre("small"));
}

// ----------------------------------------------------- the report on odd frames

class PcapHelperReport : public PcapHelper {
protected:
    // What standard error holds once all was read and the reader was closed.
    std::string report_of(const std::vector<frame>& frames)
    {
        const std::string path = save(frames);
        captured_streams streams;
        pcap_helper reader;
        reader.open(path, "udp");
        read_all(reader);
        reader.close();
        return streams.errors();
    }

    std::string counts(
        int short_frames, int long_payloads, const char* name = "a.pcap") const
    {
        return directory_.file(name) + ": " + std::to_string(short_frames) +
               " frame(s) shorter than their headers, " + std::to_string(long_payloads) +
               " payload(s) longer than 10240 bytes\n";
    }

    const frame plain_ = udp_frame({.payload = "payload"});
    const frame short_ = truncated(plain_, 41);
    const frame long_ = udp_frame({.payload = sample_bytes(10241)});
};

TEST_F(PcapHelperReport, OddFramesAreCountedInOneLineWhenTheFileIsClosed)
{
    EXPECT_EQ(report_of({short_, plain_, long_, short_}), counts(2, 1));
}

TEST_F(PcapHelperReport, BothCountsAreShownWhenOneIsZero)
{
    EXPECT_EQ(report_of({short_}), counts(1, 0));
    EXPECT_EQ(report_of({long_, long_}), counts(0, 2));
}

TEST_F(PcapHelperReport, AFileWithoutOddFramesReportsNothing)
{
    // An empty payload and one of exactly a message are not odd.
    EXPECT_EQ(
        report_of({plain_, udp_frame({}), udp_frame({.payload = sample_bytes(10240)})}),
        "");
}

TEST_F(PcapHelperReport, APayloadInThreePiecesCountsOnce)
{
    EXPECT_EQ(report_of({udp_frame({.payload = sample_bytes(20481)})}), counts(0, 1));
}

TEST_F(PcapHelperReport, TheCountsStartAnewWithEachFile)
{
    const std::string first = save({short_, short_}, {}, "first");
    const std::string second = save({plain_}, {}, "second");
    const std::string third = save({short_}, {}, "third");
    captured_streams streams;
    pcap_helper reader;
    for (const std::string& path : {first, second, third}) {
        reader.open(path, "udp");
        read_all(reader);
        reader.close();
    }
    EXPECT_EQ(streams.errors(), counts(2, 0, "first") + counts(1, 0, "third"));
}

TEST_F(PcapHelperReport, DestructionClosesTheFileAndReports)
{
    const std::string path = save({short_});
    captured_streams streams;
    {
        pcap_helper reader;
        reader.open(path, "udp");
        read_all(reader);
    }
    EXPECT_EQ(streams.errors(), counts(1, 0));
}

TEST_F(PcapHelperReport, ClosingTwiceReportsOnce)
{
    const std::string path = save({short_});
    captured_streams streams;
    pcap_helper reader;
    reader.open(path, "udp");
    read_all(reader);
    reader.close();
    reader.close();
    EXPECT_EQ(streams.errors(), counts(1, 0));
}

TEST_F(PcapHelperReport, OutputHoldsTheDescriptionAlone)
{
    const std::string path = save({short_, long_});
    captured_streams streams;
    {
        pcap_helper reader;
        reader.open(path, "udp");
        read_all(reader);
    }
    EXPECT_EQ(streams.output(), described("EN10MB Ethernet, snapshot lengthL: 262144"));
}

// ------------------------------------------------------------ moves and reuse

TEST_F(PcapHelper, TheSameReaderReadsOneFileAfterAnother)
{
    const std::string first = save({udp_frame({.payload = "first"})}, {}, "first");
    const std::string second = save({tcp_frame({.payload = "second"})}, {}, "second");
    captured_streams quiet;
    pcap_helper reader;

    reader.open(first, "udp");
    EXPECT_THAT(read_all(reader), ElementsAre("first"));
    reader.close();
    reader.open(second, "tcp");
    EXPECT_THAT(read_all(reader), ElementsAre("second"));
}

TEST_F(PcapHelper, TheStoredFilterServesTheNextFileToo)
{
    const std::string path =
        save({tcp_frame({.payload = "tcp"}), udp_frame({.payload = "udp"})});
    captured_streams quiet;
    pcap_helper reader;
    reader.open(path, "udp");
    reader.close();

    EXPECT_TRUE(reader.open_internal(path));
    EXPECT_THAT(read_all(reader), ElementsAre("udp"));
}

TEST_F(PcapHelper, AMoveTakesTheOpenCaptureWithItsPosition)
{
    const frame large = udp_frame({.payload = sample_bytes(10241)});
    const std::string path = save({large, udp_frame({.payload = "next"})});
    captured_streams quiet;
    pcap_helper source;
    source.open(path, "udp");
    read_one(source);

    pcap_helper target(std::move(source));
    EXPECT_THAT(read_all(target), ElementsAre(large.payload.substr(10240), "next"));
}

TEST_F(PcapHelper, AMovedFromReaderIsClosedAndCanBeOpenedAgain)
{
    const std::string path = save({udp_frame({.payload = "payload"})});
    captured_streams quiet;
    pcap_helper source;
    source.open(path, "udp");
    pcap_helper target(std::move(source));

    source.close(); // must leave the target's capture alone
    EXPECT_THAT(read_all(target), ElementsAre("payload"));
    EXPECT_TRUE(source.open(path, "udp"));
    EXPECT_THAT(read_all(source), ElementsAre("payload"));
}

TEST_F(PcapHelper, AMoveAssignmentClosesTheTargetsCaptureAndTakesTheSources)
{
    const std::string odd = save({truncated(udp_frame({}), 41)}, {}, "odd");
    const std::string path = save({udp_frame({.payload = "payload"})});
    captured_streams streams;
    pcap_helper source;
    source.open(path, "udp");
    pcap_helper target;
    target.open(odd, "udp");
    read_all(target);

    target = std::move(source);
    EXPECT_THAT(read_all(target), ElementsAre("payload"));
    EXPECT_EQ(
        streams.errors(), odd + ": 1 frame(s) shorter than their headers, 0 payload(s) "
                                "longer than 10240 bytes\n");
}

TEST_F(PcapHelper, TheFilterAndItsTransportMoveAlong)
{
    const std::string path =
        save({tcp_frame({.payload = "tcp"}), udp_frame({.payload = "udp"})});
    captured_streams quiet;
    pcap_helper source;
    std::string filter = "tcp";
    source.set_filter(filter);
    pcap_helper target;
    target = std::move(source);

    EXPECT_TRUE(target.open_internal(path));
    EXPECT_THAT(read_all(target), ElementsAre("tcp"));
}

// ------------------------------------------------------------ hostile captures

class PcapHelperHostile : public PcapHelper {
protected:
    // Reads a damaged capture to its end, which is the capture's end or one of
    // the reader's own errors; anything else fails the test.
    void read_to_its_end(const std::string& bytes, const char* filter)
    {
        support::write_file(path_, bytes);
        pcap_helper reader;
        try {
            reader.open(path_, filter);
            // A frame is at most 26 messages, and few frames fit into the file.
            EXPECT_LT(read_all(reader).size(), 26 * bytes.size());
        } catch (const vesk_ex& error) {
            const std::string text = error.what();
            EXPECT_TRUE(
                text == INVALID_LENGTH ||
                text.rfind("Open pcap file failed! Error message: ", 0) == 0)
                << text;
        }
    }

    void read_with_every_filter(const std::string& bytes)
    {
        for (const char* filter : {"udp", "tcp", UNFILTERED_UDP, UNFILTERED_TCP})
            read_to_its_end(bytes, filter);
    }

    static std::string small_capture(const capture_format& format)
    {
        return support::capture_bytes(
            {udp_frame({.payload = sample_bytes(60)}),
             tcp_frame(
                 {.payload = sample_bytes(40), .tcp_options = std::string(12, '\1')}),
             udp_frame(
                 {.payload = sample_bytes(30), .ip_options = std::string(8, '\1')})},
            format);
    }

    void truncate_everywhere(const capture_format& format)
    {
        const std::string whole = small_capture(format);
        for (size_t length = 0; length <= whole.size(); ++length)
            read_with_every_filter(whole.substr(0, length));
    }

    void damage_every_byte(const capture_format& format)
    {
        const std::string whole = small_capture(format);
        ASSERT_GT(whole.size(), 200U);
        for (size_t at = 0; at < 200; ++at) {
            for (const int value : {0x00, 0x7F, 0x80, 0xFF, whole[at] ^ 1}) {
                std::string damaged = whole;
                damaged[at] = static_cast<char>(value);
                read_with_every_filter(damaged);
            }
        }
    }

    const std::string path_ = directory_.file("hostile");
    const exact_frames exact_;
    captured_streams quiet_;
};

TEST_F(PcapHelperHostile, EveryTruncationOfACaptureEndsInBounds)
{
    truncate_everywhere({});
}

TEST_F(PcapHelperHostile, EveryTruncationOfAPcapngCaptureEndsInBounds)
{
    truncate_everywhere({.pcapng = true});
}

TEST_F(PcapHelperHostile, EveryDamagedByteOfACaptureEndsInBounds)
{
    damage_every_byte({});
}

TEST_F(PcapHelperHostile, EveryDamagedByteOfAPcapngCaptureEndsInBounds)
{
    damage_every_byte({.pcapng = true});
}

TEST_F(PcapHelperHostile, EveryCapturedLengthOfAFrameEndsInBounds)
{
    const frame whole = tcp_frame({.payload = "ab", .tcp_options = std::string(4, '\1')});
    for (size_t captured = 0; captured <= whole.bytes.size(); ++captured)
        read_with_every_filter(support::capture_bytes({truncated(whole, captured)}));
}

TEST_F(PcapHelperHostile, EveryPairOfHeaderLengthsEndsInBounds)
{
    frame tcp = tcp_frame({.payload = sample_bytes(30)});
    for (const int ip : {0, 1, 4, 5, 6, 14, 15}) {
        for (const int transport : {0, 1, 4, 5, 6, 14, 15}) {
            tcp.bytes[14] = static_cast<char>(0x40 | ip);
            tcp.bytes[46] = static_cast<char>(transport << 4);
            read_with_every_filter(support::capture_bytes({tcp}));
        }
    }
}

TEST_F(PcapHelperHostile, EveryCombinationOfLyingLengthsEndsInBounds)
{
    const frame udp = udp_frame({.payload = sample_bytes(10300)});
    const auto size = static_cast<uint32_t>(udp.bytes.size());
    for (const uint32_t captured :
         {0U, 1U, 14U, 46U, size - 1, size, size + 1, 262144U, ~0U}) {
        for (const uint32_t wire : {0U, 1U, 14U, 46U, size, 262144U, 262145U, ~0U})
            read_with_every_filter(
                support::capture_bytes({with_lengths(udp, captured, wire)}));
    }
}

} // namespace pcap_helper_test
