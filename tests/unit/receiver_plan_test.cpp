// The dry run: numbers, sizes, time and digest of what the sender would send. The
// digests are published vectors, or were made by another program.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "digest.h"
#include "plan.h"
#include "support/capture_builder.h"
#include "support/scratch_dir.h"

namespace receiver_plan_test {

using namespace receiver;
using support::capture_bytes;
using support::sample_bytes;
using support::scratch_dir;
using support::write_file;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char DIGEST_OF_NOTHING[] =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr char DIGEST_OF_ABC[] =
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr char DIGEST_OF_ABC_TWICE[] =
    "bbb59da3af939f7af5f360f2ceb80a496e3bae1cd87dde426db0ae40677e1c2c";
constexpr char DIGEST_OF_A_MILLION_A[] =
    "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";

std::string digest_of(const std::vector<std::string>& parts)
{
    sha256 digest;
    for (const std::string& part : parts)
        digest.add({reinterpret_cast<const uint8_t*>(part.data()), part.size()});
    return digest.hex();
}

TEST(ReceiverDigest, KnownTextsHaveTheirKnownDigests)
{
    EXPECT_EQ(digest_of({}), DIGEST_OF_NOTHING);
    EXPECT_EQ(digest_of({"abc"}), DIGEST_OF_ABC);
    EXPECT_EQ(
        digest_of({"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"}),
        "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

TEST(ReceiverDigest, BordersBetweenPartsDoNotCount)
{
    EXPECT_EQ(digest_of({"a", "", "bc"}), DIGEST_OF_ABC);
    EXPECT_EQ(
        digest_of(std::vector<std::string>(1000, std::string(1000, 'a'))),
        DIGEST_OF_A_MILLION_A);
}

class ReceiverPlan : public testing::Test {
protected:
    std::string put(const std::string& name, const std::string& bytes)
    {
        write_file(files_.file(name), bytes);
        return files_.file(name);
    }

    static options data_options(const std::string& path, uint32_t passes = 1)
    {
        options to;
        to.source = {path, false, "", passes, false};
        return to;
    }

    static options capture_options(const std::string& path, uint32_t passes = 1)
    {
        options to;
        to.source = {path, true, "udp", passes, false};
        return to;
    }

    static plan_result plan(const options& to)
    {
        return make_plan(to, [](const plan_progress&) { return true; });
    }

    static support::frame udp(const std::string& payload)
    {
        support::frame_parts parts;
        parts.payload = payload;
        return udp_frame(parts);
    }

    scratch_dir files_;
};

TEST_F(ReceiverPlan, MessagesAndBytesAreCounted)
{
    const plan_result result = plan(data_options(put("day", sample_bytes(25000))));
    EXPECT_EQ(result.messages, 3U);
    EXPECT_EQ(result.bytes, 25000U);
    EXPECT_EQ(result.files, 1U);
    EXPECT_EQ(result.passes, 1U);
    EXPECT_EQ(result.source_error, "");
    EXPECT_THAT(result.notes, IsEmpty());
}

TEST_F(ReceiverPlan, SizesAreDescribed)
{
    const plan_result result = plan(
        capture_options(put("day", capture_bytes({udp("a"), udp("bb"), udp("bb")}))));
    EXPECT_EQ(result.sizes.count, 3U);
    EXPECT_EQ(result.sizes.min, 1U);
    EXPECT_EQ(result.sizes.max, 2U);
    EXPECT_DOUBLE_EQ(result.sizes.mean, 5.0 / 3);
    EXPECT_EQ(result.sizes.p50, 2U);
    ASSERT_THAT(result.sizes.bins, SizeIs(2));
    EXPECT_EQ(result.sizes.bins[1].count, 2U);
}

TEST_F(ReceiverPlan, TheDigestIsOfAllPayloads)
{
    EXPECT_EQ(plan(data_options(put("day", "abc"))).sha256, DIGEST_OF_ABC);
    EXPECT_EQ(
        plan(data_options(put("day", std::string(1000000, 'a')))).sha256,
        DIGEST_OF_A_MILLION_A);
    EXPECT_EQ(
        plan(capture_options(put("day", capture_bytes({udp("a"), udp(""), udp("bc")}))))
            .sha256,
        DIGEST_OF_ABC);
}

TEST_F(ReceiverPlan, AllPassesCount)
{
    const plan_result result = plan(data_options(put("day", "abc"), 2));
    EXPECT_EQ(result.passes, 2U);
    EXPECT_EQ(result.messages, 2U);
    EXPECT_EQ(result.bytes, 6U);
    EXPECT_EQ(result.sizes.count, 2U);
    EXPECT_EQ(result.sha256, DIGEST_OF_ABC_TWICE);
}

TEST_F(ReceiverPlan, OfAnEndlessReplayOnePassCounts)
{
    const plan_result result = plan(data_options(put("day", "abc"), 0));
    EXPECT_EQ(result.passes, 0U);
    EXPECT_EQ(result.messages, 1U);
    EXPECT_EQ(result.bytes, 3U);
    EXPECT_EQ(result.sha256, DIGEST_OF_ABC);
}

TEST_F(ReceiverPlan, NothingToSendIsAPlanToo)
{
    const plan_result result = plan(data_options(put("day", ""), 3));
    EXPECT_EQ(result.messages, 0U);
    EXPECT_EQ(result.bytes, 0U);
    EXPECT_EQ(result.sizes.count, 0U);
    EXPECT_THAT(result.sizes.bins, IsEmpty());
    EXPECT_EQ(result.sha256, DIGEST_OF_NOTHING);
}

TEST_F(ReceiverPlan, APreloadedFileIsPlannedInItsOrder)
{
    options to = data_options(put("day", std::string(10240, 'c') + "ab"));
    to.source.preload = true;
    EXPECT_EQ(plan(to).sha256, digest_of({"ab", std::string(10240, 'c')}));
}

TEST_F(ReceiverPlan, WithARateItTellsTheTime)
{
    options to = data_options(put("day", sample_bytes(25000)), 2);
    to.wanted_bps = 1000000;
    const plan_result result = plan(to);
    EXPECT_EQ(result.wanted_bps, 1e6);
    EXPECT_EQ(result.seconds, 0.4);
}

TEST_F(ReceiverPlan, WithoutARateItTellsNoTime)
{
    const plan_result result = plan(data_options(put("day", "abc")));
    EXPECT_EQ(result.wanted_bps, std::nullopt);
    EXPECT_EQ(result.seconds, std::nullopt);
}

TEST_F(ReceiverPlan, WhatIsLeftOutIsCountedForOnePass)
{
    support::frame_parts stream;
    stream.payload = "stream";
    put("a", capture_bytes({udp("one"), udp(""), tcp_frame(stream), udp("two")}));
    put("b", capture_bytes({udp(""), support::truncated(udp("gone"), 30)}));
    const plan_result result = plan(capture_options(files_.path(), 2));
    EXPECT_EQ(result.messages, 4U);
    EXPECT_EQ(result.files, 2U);
    EXPECT_EQ(result.omitted.empty, 2U);
    EXPECT_EQ(result.omitted.filtered, 1U);
    EXPECT_EQ(result.omitted.short_frames, 1U);
}

TEST_F(ReceiverPlan, WhatIsSentOddlyIsCountedForOnePassAndTold)
{
    const std::string whole =
        capture_bytes({udp(sample_bytes(20000)), udp("one"), udp("two")});
    const plan_result result =
        plan(capture_options(put("day", whole.substr(0, whole.size() - 1)), 2));
    EXPECT_EQ(result.messages, 6U);
    EXPECT_EQ(result.noted.split_payloads, 1U);
    EXPECT_EQ(result.noted.broken_files, 1U);
    EXPECT_THAT(result.notes, ElementsAre(HasSubstr("ends early")));
}

TEST_F(ReceiverPlan, ASourceThatBreaksIsPlannedUpToThere)
{
    const support::frame bad = support::with_lengths(udp("x"), 43, 262145);
    const plan_result result =
        plan(capture_options(put("day", capture_bytes({udp("abc"), bad, udp("z")})), 2));
    EXPECT_EQ(result.messages, 1U);
    EXPECT_EQ(result.sha256, DIGEST_OF_ABC);
    EXPECT_THAT(result.source_error, HasSubstr("262145"));
}

TEST_F(ReceiverPlan, AMissingPathIsAFileError)
{
    EXPECT_THROW(plan(data_options(files_.file("gone"))), file_error);
}

TEST_F(ReceiverPlan, TheCommandAndTheSourceAreKept)
{
    options to = data_options(put("day", "abc"));
    to.command = "replay_receiver --plan";
    const plan_result result = plan(to);
    EXPECT_EQ(result.command, "replay_receiver --plan");
    EXPECT_EQ(result.source, files_.file("day"));
}

TEST_F(ReceiverPlan, ItsProgressIsToldNowAndThen)
{
    std::vector<plan_progress> steps;
    const options to = data_options(put("day", sample_bytes(10240 * 512)), 2);
    const plan_result result = make_plan(to, [&](const plan_progress& so_far) {
        steps.push_back(so_far);
        return true;
    });
    EXPECT_EQ(result.messages, 1024U);
    ASSERT_FALSE(steps.empty());
    uint64_t last = 0;
    for (const plan_progress& step : steps) {
        EXPECT_GT(step.messages, last);
        EXPECT_EQ(step.bytes, step.messages * 10240);
        EXPECT_EQ(step.fraction, static_cast<double>(step.messages) / 1024);
        last = step.messages;
    }
}

TEST_F(ReceiverPlan, AStepThatSaysNoEndsThePlan)
{
    const options to = capture_options(
        put("day", capture_bytes(std::vector<support::frame>(5000, udp("abc")))), 0);
    int steps = 0;
    uint64_t told = 0;
    const plan_result result = make_plan(to, [&](const plan_progress& so_far) {
        told = so_far.messages;
        return ++steps < 3;
    });
    EXPECT_EQ(steps, 3);
    EXPECT_EQ(result.messages, told);
    EXPECT_EQ(result.bytes, 3 * told);
    EXPECT_LT(result.messages, 5000U);
    EXPECT_EQ(result.sha256, digest_of(std::vector<std::string>(result.messages, "abc")));
}

} // namespace receiver_plan_test
