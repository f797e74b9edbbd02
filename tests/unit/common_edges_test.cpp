// The readers of data files and captures at the edges of their use: without a file,
// without a name, with themselves.
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common.h"
#include "support/call_seam.h"
#include "support/capture_builder.h"
#include "support/output_capture.h"
#include "support/scratch_dir.h"
#include "support/socket_trace.h"

namespace common_edges_test {

namespace call = support::call;
using vesk::details::file_helper;
using vesk::details::pcap_helper;

TEST(FileHelperEdges, WithoutAFileTheSizeIsZero)
{
    file_helper helper;
    EXPECT_EQ(helper.file_size(), 0U);

    const support::scratch_dir dir;
    support::write_file(dir.file("data"), "seven b");
    helper.open(dir.file("data"), std::ios_base::in);
    EXPECT_EQ(helper.file_size(), 7U);
    helper.close();
    EXPECT_EQ(helper.file_size(), 0U);
}

TEST(DecodeFilenameEdges, AnEmptyNameIsTheRootFolder)
{
    std::string listed = "nothing";
    const support::scoped_call<call::scandir> hook([&](const char* path, auto&&...) {
        listed = path;
        return 0;
    });

    std::string dirname;
    EXPECT_THROW(vesk::details::decode_filename(dirname), vesk::details::vesk_ex);
    EXPECT_EQ(dirname, "/");
    EXPECT_EQ(listed, "/");
}

TEST(PcapHelperEdges, AMoveOntoItselfKeepsTheOpenCapture)
{
    const support::output_capture output;
    const support::scratch_dir dir;
    support::write_file(
        dir.file("capture"),
        support::capture_bytes({support::udp_frame({.payload = "one"})}));

    pcap_helper helper;
    ASSERT_TRUE(helper.open(dir.file("capture"), "udp"));
    pcap_helper& same = helper;
    helper = std::move(same);

    char buffer[vesk::MAX_BUFFER_SIZE];
    size_t length = 0;
    ASSERT_TRUE(helper.read(buffer, length));
    EXPECT_EQ(std::string(buffer, length), "one");
}

TEST(PcapHelperEdges, AMovedFromReaderHasNoOddFramesToReport)
{
    const support::output_capture output;
    const support::scratch_dir dir;
    support::write_file(
        dir.file("odd"),
        support::capture_bytes(
            {support::truncated(support::udp_frame({.payload = "cut off"}), 40),
             support::udp_frame({.payload = support::sample_bytes(20000)})}));
    support::write_file(
        dir.file("even"),
        support::capture_bytes({support::udp_frame({.payload = "one"})}));

    pcap_helper first;
    ASSERT_TRUE(first.open(dir.file("odd"), "udp"));
    char buffer[vesk::MAX_BUFFER_SIZE];
    size_t length = 0;
    EXPECT_TRUE(first.read(buffer, length));
    EXPECT_EQ(length, 0U);
    EXPECT_TRUE(first.read(buffer, length));
    EXPECT_EQ(length, sizeof(buffer));
    pcap_helper second(std::move(first));

    testing::internal::CaptureStderr();
    ASSERT_TRUE(first.open(dir.file("even"), "udp"));
    ASSERT_TRUE(first.read(buffer, length));
    EXPECT_EQ(std::string(buffer, length), "one");
    first.close();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    testing::internal::CaptureStderr();
    second.close();
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        dir.file("odd") +
            ": 1 frame(s) shorter than their headers, 1 payload(s) longer than "
            "10240 bytes\n");
}

TEST(PcapHelperEdges, OnlyAllZerosAndAllOnesAreBroadcastAddresses)
{
    const support::output_capture output;
    const support::scratch_dir dir;
    std::vector<support::frame> frames;
    for (const uint32_t address :
         {0x00000000U, 0x00000001U, 0x01000000U, 0xFFFFFFFEU, 0xFEFFFFFFU, 0xFFFFFFFFU})
        frames.push_back(support::udp_frame(
            {.payload = support::hex(&address, sizeof(address)),
             .destination_address = address}));
    support::write_file(dir.file("capture"), support::capture_bytes(frames));

    pcap_helper helper;
    ASSERT_TRUE(helper.open(dir.file("capture"), "udp and ip broadcast"));
    std::vector<std::string> passed;
    char buffer[vesk::MAX_BUFFER_SIZE];
    for (size_t length = 0; helper.read(buffer, length);)
        passed.emplace_back(buffer, length);
    EXPECT_EQ(passed, (std::vector<std::string>{"00000000", "ffffffff"}));
}

} // namespace common_edges_test
