// What a run keeps. The files are read back by a few lines of their own: lengths,
// addresses and checksums are worked out here from the bytes alone.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "source.h"
#include "support/capture_builder.h"
#include "support/scratch_dir.h"
#include "writer.h"

namespace receiver_writer_test {

using namespace receiver;
using support::sample_bytes;
using support::scratch_dir;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr uint64_t STAMP = 1'700'000'000'123'456'789;

std::string content_of(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bytes_view view(const std::string& text)
{
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// Reads numbers from a text of bytes; a capture is little-endian on these
// machines, what was on the wire big-endian.
class byte_reader {
public:
    explicit byte_reader(std::string bytes) : bytes_(std::move(bytes)) {}

    uint64_t little(size_t size)
    {
        const std::string part = take(size);
        uint64_t value = 0;
        for (auto byte = part.rbegin(); byte != part.rend(); ++byte)
            value = value << 8U | static_cast<uint8_t>(*byte);
        return value;
    }

    uint64_t big(size_t size)
    {
        uint64_t value = 0;
        for (const char byte : take(size))
            value = value << 8U | static_cast<uint8_t>(byte);
        return value;
    }

    std::string take(size_t size)
    {
        if (size > bytes_.size() - at_)
            throw std::runtime_error("the file is too short");
        at_ += size;
        return bytes_.substr(at_ - size, size);
    }

    bool at_end() const { return at_ == bytes_.size(); }

private:
    std::string bytes_;
    size_t at_{0};
};

struct record {
    uint64_t seconds{0};
    uint64_t nanoseconds{0};
    uint64_t wire_length{0};
    std::string frame;

    std::string payload() const { return frame.substr(42); }
};

// The records of a capture of Ethernet frames with nanosecond stamps.
std::vector<record> records_of(const std::string& path)
{
    byte_reader file(content_of(path));
    EXPECT_EQ(file.little(4), 0xA1B23C4DU);
    EXPECT_EQ(file.little(2), 2U);
    EXPECT_EQ(file.little(2), 4U);
    EXPECT_EQ(file.little(8), 0U); // time zone and accuracy
    EXPECT_GE(file.little(4), 65549U);
    EXPECT_EQ(file.little(4), 1U);
    std::vector<record> records;
    while (!file.at_end()) {
        record each;
        each.seconds = file.little(4);
        each.nanoseconds = file.little(4);
        const uint64_t captured = file.little(4);
        each.wire_length = file.little(4);
        each.frame = file.take(captured);
        records.push_back(each);
    }
    return records;
}

// The sum of all 16-bit words in one's complement: 0xFFFF over data that holds
// its own checksum.
uint32_t ones_complement_sum(const std::string& bytes)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2) {
        const auto high = static_cast<uint8_t>(bytes[i]);
        const auto low =
            i + 1 < bytes.size() ? static_cast<uint8_t>(bytes[i + 1]) : uint8_t{0};
        sum += uint32_t{high} << 8U | low;
        sum = (sum & 0xFFFFU) + (sum >> 16U);
    }
    return sum;
}

// Addresses, a zero, the protocol and the UDP length, in front of the datagram.
std::string with_pseudo_header(const std::string& frame)
{
    return frame.substr(26, 8) + std::string("\0\x11", 2) + frame.substr(38, 2) +
           frame.substr(34);
}

received_datagram datagram_of(const std::string& payload, uint64_t stamp = STAMP)
{
    received_datagram datagram;
    datagram.payload = view(payload);
    datagram.stamp_ns = stamp;
    datagram.from.sin_family = AF_INET;
    datagram.from.sin_addr.s_addr = ::inet_addr("192.168.7.9");
    datagram.from.sin_port = htons(40001);
    datagram.to.s_addr = ::inet_addr("239.1.2.3");
    return datagram;
}

std::vector<record> written(const std::vector<std::string>& payloads)
{
    const scratch_dir files;
    capture_writer writer{output_file(files.file("kept"))};
    for (const std::string& payload : payloads)
        writer.write(datagram_of(payload), htons(5000));
    writer.finish();
    return records_of(files.file("kept"));
}

// Empty and odd ones, and the longest that UDP carries.
std::vector<std::string> payloads_of_all_lengths()
{
    std::vector<std::string> payloads = {
        "", std::string(1472, '\xFF'), sample_bytes(65507)};
    for (uint32_t size = 1; size < 70; ++size)
        payloads.push_back(sample_bytes(size, size));
    for (const uint32_t size : {1471U, 1472U, 1473U, 10240U, 65506U})
        payloads.push_back(sample_bytes(size, size));
    return payloads;
}

template <class action_t>
std::string file_error_of(action_t action)
{
    try {
        action();
    } catch (const file_error& error) {
        return error.what();
    }
    return "(no error)";
}

// ---------------------------------------------------------------------- data file

TEST(ReceiverWriter, ADataFileHoldsTheBytesAsTheyCame)
{
    const scratch_dir files;
    data_writer writer{output_file(files.file("kept"))};
    writer.write(view("one"));
    writer.write(view(""));
    writer.write(view(sample_bytes(100000)));
    writer.finish();
    EXPECT_EQ(content_of(files.file("kept")), "one" + sample_bytes(100000));
}

TEST(ReceiverWriter, ADataFileOfNothingIsEmpty)
{
    const scratch_dir files;
    data_writer(output_file(files.file("kept"))).finish();
    EXPECT_TRUE(std::filesystem::exists(files.file("kept")));
    EXPECT_EQ(content_of(files.file("kept")), "");
}

TEST(ReceiverWriter, ADataFileTakesTheOldOnesPlace)
{
    const scratch_dir files;
    support::write_file(files.file("kept"), "what was there before");
    data_writer writer{output_file(files.file("kept"))};
    writer.write(view("new"));
    writer.finish();
    EXPECT_EQ(content_of(files.file("kept")), "new");
}

TEST(ReceiverWriter, ADataFileInNoFolderIsAFileError)
{
    const scratch_dir files;
    const std::string path = files.file("none/kept");
    EXPECT_THAT(
        file_error_of([&] { data_writer writer{output_file(path)}; }), HasSubstr(path));
}

TEST(ReceiverWriter, AFullDiskIsAFileErrorOfADataFile)
{
    data_writer at_once{output_file("/dev/full")};
    EXPECT_THAT(
        file_error_of([&] { at_once.write(view(std::string(1U << 20U, 'x'))); }),
        HasSubstr("/dev/full"));

    data_writer at_the_end{output_file("/dev/full")};
    at_the_end.write(view("x"));
    EXPECT_THAT(file_error_of([&] { at_the_end.finish(); }), HasSubstr("No space left"));
}

// ------------------------------------------------------------------------ capture

TEST(ReceiverWriter, ACaptureOfNothingIsOne) { EXPECT_THAT(written({}), IsEmpty()); }

TEST(ReceiverWriter, ACaptureHoldsThePayloadsInOrder)
{
    const std::vector<std::string> payloads = payloads_of_all_lengths();
    const std::vector<record> records = written(payloads);
    ASSERT_EQ(records.size(), payloads.size());
    for (size_t i = 0; i < payloads.size(); ++i)
        EXPECT_EQ(records[i].payload(), payloads[i]) << payloads[i].size();
}

TEST(ReceiverWriter, FramesAreCapturedWhole)
{
    for (const record& each : written(payloads_of_all_lengths()))
        EXPECT_EQ(each.wire_length, each.frame.size());
}

TEST(ReceiverWriter, StampsKeepTheirNanoseconds)
{
    const scratch_dir files;
    capture_writer writer{output_file(files.file("kept"))};
    const std::string payload = "x";
    for (const uint64_t stamp :
         {STAMP, uint64_t{999'999'999}, uint64_t{1'000'000'000},
          uint64_t{4'294'967'295'000'000'001}})
        writer.write(datagram_of(payload, stamp), htons(5000));
    writer.finish();
    std::vector<std::pair<uint64_t, uint64_t>> stamps;
    for (const record& each : records_of(files.file("kept")))
        stamps.emplace_back(each.seconds, each.nanoseconds);
    EXPECT_THAT(
        stamps, ElementsAre(
                    std::pair(1'700'000'000U, 123'456'789U), std::pair(0U, 999'999'999U),
                    std::pair(1U, 0U), std::pair(4'294'967'295U, 1U)));
}

TEST(ReceiverWriter, FramesAreIpv4OverEthernet)
{
    for (const record& each : written(payloads_of_all_lengths())) {
        byte_reader frame(each.frame);
        (void)frame.take(12); // made-up hardware addresses
        EXPECT_EQ(frame.big(2), 0x0800U);
        EXPECT_EQ(frame.big(1), 0x45U); // version 4, five words
    }
}

// The lowest bit of the first byte would make it a group's address, as a source
// forbidden.
TEST(ReceiverWriter, HardwareAddressesAreOfTheLocalKind)
{
    const std::string frame = written({"x"})[0].frame;
    EXPECT_EQ(static_cast<uint8_t>(frame[0]) & 3U, 2U);
    EXPECT_EQ(static_cast<uint8_t>(frame[6]) & 3U, 2U);
}

TEST(ReceiverWriter, LengthsAreOfTheDatagram)
{
    for (const record& each : written(payloads_of_all_lengths())) {
        byte_reader ip(each.frame.substr(16));
        EXPECT_EQ(ip.big(2), each.frame.size() - 14);
        byte_reader udp(each.frame.substr(38));
        EXPECT_EQ(udp.big(2), each.frame.size() - 34);
    }
}

TEST(ReceiverWriter, DatagramsAreNoFragments)
{
    for (const record& each : written({"x", sample_bytes(65507)})) {
        byte_reader ip(each.frame.substr(20));
        EXPECT_EQ(ip.big(2) & 0x3FFFU, 0U); // neither more to come nor an offset
        EXPECT_GT(ip.big(1), 0U);           // time to live
        EXPECT_EQ(ip.big(1), 17U);
    }
}

TEST(ReceiverWriter, AddressesAndPortsAreTheRealOnes)
{
    byte_reader frame(written({"x"})[0].frame.substr(26));
    EXPECT_EQ(frame.big(4), 0xC0A80709U);
    EXPECT_EQ(frame.big(4), 0xEF010203U);
    EXPECT_EQ(frame.big(2), 40001U);
    EXPECT_EQ(frame.big(2), 5000U);
}

TEST(ReceiverWriter, TheChecksumOfTheIpHeaderIsRight)
{
    for (const record& each : written(payloads_of_all_lengths()))
        EXPECT_EQ(ones_complement_sum(each.frame.substr(14, 20)), 0xFFFFU);
}

TEST(ReceiverWriter, TheChecksumOfTheDatagramIsRight)
{
    for (const record& each : written(payloads_of_all_lengths()))
        EXPECT_EQ(ones_complement_sum(with_pseudo_header(each.frame)), 0xFFFFU)
            << each.frame.size();
}

// A zero there would mean that there is none. Of all payloads of two bytes, one
// sums up to it.
TEST(ReceiverWriter, TheChecksumOfADatagramIsNeverZero)
{
    std::vector<std::string> payloads;
    for (unsigned value = 0; value < 65536; ++value)
        payloads.push_back(support::number_bytes(value, 2));
    bool met = false;
    for (const record& each : written(payloads)) {
        byte_reader udp(each.frame.substr(40));
        const uint64_t checksum = udp.big(2);
        ASSERT_NE(checksum, 0U);
        met = met || checksum == 0xFFFF;
        ASSERT_EQ(ones_complement_sum(with_pseudo_header(each.frame)), 0xFFFFU);
    }
    EXPECT_TRUE(met);
}

// The way back: what is kept is a recording again.
TEST(ReceiverWriter, AKeptCaptureGivesTheSameMessagesAgain)
{
    const scratch_dir files;
    std::vector<std::string> sent;
    capture_writer writer{output_file(files.file("kept"))};
    for (uint32_t size = 1; size < 2000; size += 37) {
        sent.push_back(sample_bytes(size, size));
        writer.write(datagram_of(sent.back()), htons(5000));
    }
    writer.finish();
    const auto source =
        open_source({files.file("kept"), true, "udp and dst port 5000", 1, false});
    std::vector<std::string> messages;
    bytes_view message;
    while (source->next(message))
        messages.emplace_back(message.begin(), message.end());
    EXPECT_EQ(messages, sent);
    EXPECT_EQ(source->error(), "");
}

TEST(ReceiverWriter, ACaptureInNoFolderIsAFileError)
{
    const scratch_dir files;
    const std::string path = files.file("none/kept");
    EXPECT_THAT(
        file_error_of([&] { capture_writer writer{output_file(path)}; }),
        HasSubstr(path));
}

TEST(ReceiverWriter, AFullDiskIsAFileErrorOfACapture)
{
    const std::string payload = sample_bytes(60000);
    EXPECT_THAT(
        file_error_of([&] {
            capture_writer writer{output_file("/dev/full")};
            for (int i = 0; i < 20; ++i)
                writer.write(datagram_of(payload), htons(5000));
        }),
        HasSubstr("/dev/full"));
    EXPECT_THAT(
        file_error_of([&] {
            capture_writer writer{output_file("/dev/full")};
            writer.write(datagram_of("x"), htons(5000));
            writer.finish();
        }),
        HasSubstr("No space left"));
}

// ---------------------------------------------------------------------- kept files

TEST(ReceiverKeptFile, WithoutAPathNothingIsKept)
{
    kept_file<data_writer> kept("");
    kept.begin();
    bool called = false;
    kept.write([&](data_writer&) { called = true; });
    run_result result;
    kept.finish(result);
    EXPECT_FALSE(called);
    EXPECT_FALSE(kept.has_failed());
    EXPECT_THAT(result.problems, IsEmpty());
}

TEST(ReceiverKeptFile, WhatIsWrittenIsThereInTheEnd)
{
    const scratch_dir files;
    kept_file<data_writer> kept(files.file("kept"));
    kept.begin();
    kept.write([](data_writer& file) { file.write(view("one")); });
    kept.write([](data_writer& file) { file.write(view("two")); });
    run_result result;
    kept.finish(result);
    EXPECT_EQ(content_of(files.file("kept")), "onetwo");
    EXPECT_FALSE(kept.has_failed());
    EXPECT_THAT(result.problems, IsEmpty());
}

TEST(ReceiverKeptFile, AFileThatCannotBeCreatedIsAFileErrorAtOnce)
{
    const scratch_dir files;
    EXPECT_THROW(kept_file<data_writer>(files.file("none/kept")), file_error);
    EXPECT_THROW(kept_file<capture_writer>(files.file("none/kept")), file_error);
}

TEST(ReceiverKeptFile, TheRunGoesOnWithoutAFileThatFailed)
{
    kept_file<data_writer> kept("/dev/full");
    kept.begin();
    const std::string much(1U << 20U, 'x');
    int calls = 0;
    for (int i = 0; i < 3; ++i)
        kept.write([&](data_writer& file) {
            ++calls;
            file.write(view(much));
        });
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(kept.has_failed());
}

TEST(ReceiverKeptFile, AFailureIsTheResultsProblemOnce)
{
    kept_file<data_writer> kept("/dev/full");
    kept.begin();
    const std::string much(1U << 20U, 'x');
    for (int i = 0; i < 3; ++i)
        kept.write([&](data_writer& file) { file.write(view(much)); });
    run_result result;
    result.problems.push_back("an earlier one");
    kept.finish(result);
    EXPECT_THAT(result.problems, ElementsAre("an earlier one", HasSubstr("/dev/full")));
}

TEST(ReceiverKeptFile, AFailureAtTheEndCountsToo)
{
    kept_file<capture_writer> kept("/dev/full");
    kept.begin();
    kept.write([](capture_writer& file) { file.write(datagram_of("x"), htons(5000)); });
    EXPECT_FALSE(kept.has_failed());
    run_result result;
    kept.finish(result);
    EXPECT_TRUE(kept.has_failed());
    EXPECT_THAT(result.problems, SizeIs(1));
}

TEST(ReceiverKeptFile, ItCanBeHandedOn)
{
    const scratch_dir files;
    kept_file<capture_writer> first(files.file("kept"));
    kept_file<capture_writer> second(std::move(first));
    second.begin();
    second.write([](capture_writer& file) { file.write(datagram_of("x"), htons(5000)); });
    run_result result;
    second.finish(result);
    EXPECT_THAT(records_of(files.file("kept")), SizeIs(1));
}

// ------------------------------------------------------------------ the file itself

TEST(ReceiverOutputFile, KeepsWhatIsThereUntilItBegins)
{
    const scratch_dir files;
    const std::string path = files.file("kept");
    std::ofstream(path) << "yesterday's";
    {
        const output_file untouched(path);
    }
    EXPECT_EQ(content_of(path), "yesterday's");

    output_file file(path);
    file.begin();
    file.write(std::string_view("new"));
    file.finish();
    EXPECT_EQ(content_of(path), "new");
}

TEST(ReceiverOutputFile, LeavesNothingBehindWhenItNeverBegins)
{
    const scratch_dir files;
    const std::string path = files.file("kept");
    {
        const output_file unused(path);
        EXPECT_TRUE(std::filesystem::exists(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(ReceiverOutputFile, StaysWhenItBeganAndIsEmpty)
{
    const scratch_dir files;
    const std::string path = files.file("kept");
    {
        output_file file(path);
        file.begin();
    }
    EXPECT_TRUE(std::filesystem::exists(path));
}

} // namespace receiver_writer_test
