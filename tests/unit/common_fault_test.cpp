// The sources when a call to the system, to libpcap or to the heap fails under them:
// each error that the call may give, one at a time.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <ios>
#include <iostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common.h"
#include "support/allocation_seam.h"
#include "support/call_seam.h"
#include "support/capture_builder.h"
#include "support/fatal.h"
#include "support/output_capture.h"
#include "support/payloads.h"
#include "support/scanner_ends.h"
#include "support/scratch_dir.h"
#include "support/thrown.h"

namespace common_fault_test {

namespace call = support::call;
using support::capture_bytes;
using support::outcomes_of_each_failing_allocation;
using support::payloads_of;
using support::sample_bytes;
using support::text_thrown_by;
using support::udp_frame;
using support::write_file;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using vesk::MAX_BUFFER_SIZE;
using vesk::details::file_helper;
using vesk::details::FileType;
using vesk::details::pcap_helper;
using vesk::details::vesk_ex;
using texts_t = std::vector<std::string>;

constexpr std::ios_base::openmode INPUT = std::ios_base::in | std::ios_base::binary;
constexpr char BAD_ALLOC[] = "std::bad_alloc";

// The pauses between two tries take no time here, and no signal cuts them short.
class no_pauses {
public:
    int count = 0;

private:
    support::scoped_call<call::nanosleep> hook_{[this](const timespec*, timespec*) {
        ++count;
        return 0;
    }};
};

// The file as a replay reads it, in one piece.
std::string content_of(file_helper& file)
{
    std::string content;
    while (!file.file_end()) {
        char buffer[MAX_BUFFER_SIZE];
        size_t length = sizeof(buffer);
        file.read(buffer, length);
        content.append(buffer, length);
    }
    return content;
}

class CommonFault : public testing::Test {
protected:
    std::string save(const std::string& name, const std::string& bytes) const
    {
        write_file(directory_.file(name), bytes);
        return directory_.file(name);
    }

    support::scratch_dir directory_;
};

// --------------------------------------------------------------- stat, scandir

class FaultOfStat : public testing::TestWithParam<int> {};

TEST_P(FaultOfStat, LeavesTheTypeAndTellsItsErrno)
{
    const support::scoped_call<call::stat> hook([](const char*, struct ::stat*) {
        errno = GetParam();
        return -1;
    });
    FileType type = FileType::CHR;

    errno = 0;
    EXPECT_FALSE(vesk::details::path_exists("/any", type));

    EXPECT_EQ(errno, GetParam());
    EXPECT_EQ(type, FileType::CHR);
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfStat,
    testing::Values(
        EACCES, EFAULT, EIO, EINTR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR,
        EOVERFLOW));

class FaultOfScandir : public testing::TestWithParam<int> {};

TEST_P(FaultOfScandir, IsADirectoryWithoutFilesWhateverTheErrno)
{
    const support::scoped_call<call::scandir> hook(
        [](const char*, dirent***, int (*)(const dirent*),
           int (*)(const dirent**, const dirent**)) {
            errno = GetParam();
            return -1;
        });
    std::string directory = "/any";

    EXPECT_EQ(
        text_thrown_by([&] { vesk::details::decode_filename(directory); }),
        "Dir /any/ no files");
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfScandir,
    testing::Values(EACCES, EBADF, EIO, EMFILE, ENFILE, ENOENT, ENOMEM, ENOTDIR));

// --------------------------------------------------------------- open, its pauses

class FaultOfOpen : public CommonFault, public testing::WithParamInterface<int> {
protected:
    // Opening fails that often, then works.
    void fail_tries(int count) { failures_ = count; }

    const std::string content_ = sample_bytes(12345);
    const std::string path_ = save("file", content_); // before opening can fail
    int tries_ = 0;
    no_pauses pauses_;
    file_helper file_;

private:
    int failures_ = 0;
    support::scoped_call<call::fopen> hook_{
        [this](const char* path, const char* mode) -> FILE* {
            if (tries_++ < failures_) {
                errno = GetParam();
                return nullptr;
            }
            return support::real<call::fopen>(path, mode);
        }};
};

TEST_P(FaultOfOpen, ThatPassesIsTriedAgainAndTheFileIsReadWhole)
{
    fail_tries(2);

    file_.open(path_, INPUT);

    EXPECT_EQ(tries_, 3);
    EXPECT_EQ(pauses_.count, 2);
    EXPECT_EQ(content_of(file_), content_);
}

TEST_P(FaultOfOpen, ThatStaysIsToldAfterTheFifthTry)
{
    fail_tries(5);

    EXPECT_EQ(
        text_thrown_by([&] { file_.open(path_, INPUT); }),
        "Failed opening file " + path_ +
            " for reading. errno: " + std::to_string(GetParam()));
    EXPECT_EQ(tries_, 5);
    EXPECT_EQ(pauses_.count, 5);
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfOpen,
    testing::Values(
        EACCES, EAGAIN, EBUSY, EFAULT, EINTR, EINVAL, EIO, EISDIR, ELOOP, EMFILE,
        ENAMETOOLONG, ENFILE, ENODEV, ENOENT, ENOMEM, ENOSPC, ENOTDIR, ENXIO, EOVERFLOW,
        EPERM, ETXTBSY));

TEST_F(CommonFault, APauseThatIsInterruptedAgainAndAgainIsFinished)
{
    std::vector<long> asked;
    const support::scoped_call<call::nanosleep> hook(
        [&](const timespec* time, timespec* left) {
            asked.push_back(time->tv_nsec);
            if (time->tv_nsec <= 1000000)
                return 0;
            *left = {0, time->tv_nsec - 1000000};
            errno = EINTR;
            return -1;
        });
    file_helper file;

    EXPECT_NE(
        text_thrown_by([&] { file.open(directory_.file("missing"), INPUT); }),
        "(nothing thrown)");

    // Five pauses of ten milliseconds, each in ten parts of one.
    ASSERT_EQ(asked.size(), 50u);
    for (size_t i = 0; i < asked.size(); ++i)
        EXPECT_EQ(asked[i], static_cast<long>(10 - i % 10) * 1000000) << i;
}

TEST_F(CommonFault, APauseThatFailsForGoodIsNotRepeated)
{
    int pauses = 0;
    const support::scoped_call<call::nanosleep> hook([&](const timespec*, timespec*) {
        ++pauses;
        errno = EINVAL;
        return -1;
    });
    file_helper file;

    const std::string path = directory_.file("missing");
    EXPECT_EQ(
        text_thrown_by([&] { file.open(path, INPUT); }),
        "Failed opening file " + path + " for reading. errno: 2");
    EXPECT_EQ(pauses, 5);
}

// --------------------------------------------------------------- read

class FaultOfRead : public CommonFault, public testing::WithParamInterface<int> {};

TEST_P(FaultOfRead, EndsTheFileThereAndDeliversTheBytesBefore)
{
    const std::string content = sample_bytes(30000);
    file_helper file;
    file.open(save("file", content), INPUT);
    size_t good = 12000;
    const support::scoped_call<call::read> hook(
        [&](int fd, void* buffer, size_t length) -> ssize_t {
            if (good == 0) {
                errno = GetParam();
                return -1;
            }
            const ssize_t count =
                support::real<call::read>(fd, buffer, std::min(length, good));
            good -= static_cast<size_t>(std::max<ssize_t>(count, 0));
            return count;
        });

    EXPECT_EQ(content_of(file), content.substr(0, 12000));
    EXPECT_TRUE(file.file_end());
}

INSTANTIATE_TEST_SUITE_P(
    EveryErrorThatStays, FaultOfRead,
    testing::Values(EAGAIN, EBADF, EFAULT, EINVAL, EIO, EISDIR, ENOMEM, ESTALE));

TEST_F(CommonFault, AReadThatIsInterruptedIsTakenUpAgain)
{
    const std::string content = sample_bytes(30000);
    file_helper file;
    file.open(save("file", content), INPUT);
    int reads = 0;
    const support::scoped_call<call::read> hook(
        [&](int fd, void* buffer, size_t length) -> ssize_t {
            if (++reads % 2 == 1) {
                errno = EINTR;
                return -1;
            }
            return support::real<call::read>(fd, buffer, std::min<size_t>(length, 777));
        });

    EXPECT_EQ(content_of(file), content);
    EXPECT_GT(reads, 2 * 30000 / 777);
}

TEST_F(CommonFault, AFileThatShrinksWhileItIsReadEndsThere)
{
    const std::string content = sample_bytes(30000);
    const std::string path = save("file", content);
    file_helper file;
    file.open(path, INPUT);
    char buffer[MAX_BUFFER_SIZE];
    size_t length = sizeof(buffer);
    ASSERT_TRUE(file.read(buffer, length));

    ASSERT_EQ(::truncate(path.c_str(), 10250), 0);

    EXPECT_EQ(content_of(file), content.substr(10240, 10));
}

// --------------------------------------------------------------- captures

TEST_F(CommonFault, ACaptureThatCannotBeOpenedIsReportedInLibpcapsWordsWhateverTheErrno)
{
    const std::string path = save("a.pcap", capture_bytes({udp_frame({"x"})}));
    for (const int error : {EACCES, EINTR, EIO, EMFILE, ENFILE, ENOENT, ENOMEM, EPERM}) {
        const support::scoped_call<call::fopen> hook(
            [&](const char*, const char*) -> FILE* {
                errno = error;
                return nullptr;
            });
        pcap_helper reader;
        EXPECT_EQ(
            text_thrown_by([&] { reader.open(path, "udp"); }),
            "Open pcap file failed! Error message: " + path + ": " +
                std::strerror(error));
    }
}

TEST_F(CommonFault, AFilterThatCannotBeInstalledLeavesTheCaptureToBeReadUnfiltered)
{
    const std::string path =
        save("a.pcap", capture_bytes({udp_frame({"one "}), udp_frame({"two"})}));
    const support::scoped_call<call::pcap_setfilter> hook(
        [](pcap_t*, bpf_program*) { return -1; });
    const support::output_capture output;
    pcap_helper reader;
    testing::internal::CaptureStderr();

    EXPECT_FALSE(reader.open(path, "udp and port 1"));

    EXPECT_EQ(testing::internal::GetCapturedStderr(), "set fileter failed! \n");
    EXPECT_EQ(payloads_of(reader), "one two");
}

TEST_F(CommonFault, AFrameThatCannotBeReadEndsTheCapture)
{
    const std::string path = save(
        "a.pcap",
        capture_bytes({udp_frame({"one "}), udp_frame({"two"}), udp_frame({"x"})}));
    const support::output_capture output;
    pcap_helper reader;
    ASSERT_TRUE(reader.open(path, "udp"));
    int frames = 0;
    const support::scoped_call<call::pcap_next> hook(
        [&](pcap_t* capture, pcap_pkthdr* header) -> const u_char* {
            return ++frames == 3 ? nullptr
                                 : support::real<call::pcap_next>(capture, header);
        });

    EXPECT_EQ(payloads_of(reader), "one two");
    EXPECT_EQ(frames, 3);
}

// --------------------------------------------------------------- out of memory

TEST_F(CommonFault, OutOfMemoryAnExceptionOfOursIsABadAllocInItsPlace)
{
    const std::string text = "a text that is too long to be kept within a string";
    // The exception object itself then comes from a reserve that the runtime keeps.
    const texts_t outcomes = outcomes_of_each_failing_allocation([&] {
        try {
            vesk::vesk_throw_ex(text, 12);
        } catch (const vesk_ex& error) {
            if (text + ". errno: 12" != error.what())
                throw std::runtime_error("another text");
        }
    });
    EXPECT_THAT(outcomes, Each(AnyOf(BAD_ALLOC, "")));
    EXPECT_THAT(outcomes, Contains(BAD_ALLOC));
}

TEST_F(CommonFault, OutOfMemoryAFiltersTransportIsABadAllocAndNotUnknown)
{
    const std::string filter = "host a-name-that-is-too-long-for-a-small-string and udp";
    const texts_t outcomes = outcomes_of_each_failing_allocation([&] {
        if (vesk::details::extract_protocol_type(filter) != vesk::details::DataType::UDP)
            throw std::runtime_error("another transport");
    });
    EXPECT_THAT(outcomes, Each(BAD_ALLOC));
    EXPECT_THAT(outcomes, Not(IsEmpty()));
}

TEST_F(CommonFault, OutOfMemoryAListingIsABadAllocOrADirectoryWithoutFiles)
{
    for (int i = 0; i < 40; ++i)
        save("a file with a long name " + std::to_string(i), "x");
    const std::string with_slash = directory_.path() + "/";

    const texts_t outcomes = outcomes_of_each_failing_allocation([&] {
        std::string directory = directory_.path();
        if (vesk::details::decode_filename(directory).size() != 40)
            throw std::runtime_error("files are missing");
    });

    // The C library's part of it reports through scandir's result.
    EXPECT_THAT(outcomes, Each(AnyOf(BAD_ALLOC, "Dir " + with_slash + " no files")));
    EXPECT_THAT(outcomes, SizeIs(testing::Ge(2u * 40u)));
    EXPECT_THAT(outcomes, Contains(BAD_ALLOC));
}

TEST_F(CommonFault, OutOfMemoryAFileIsReadWholeOrABadAlloc)
{
    const std::string content = sample_bytes(25000);
    const std::string path = save("a file with a long name", content);
    no_pauses pauses;
    std::string read;
    read.reserve(content.size());

    const texts_t outcomes = outcomes_of_each_failing_allocation([&] {
        read.clear();
        file_helper file;
        file.open(path, INPUT); // without memory for its stream it is tried again
        read += content_of(file);
        if (read != content)
            throw std::runtime_error("other bytes");
    });

    EXPECT_THAT(outcomes, Each(AnyOf(BAD_ALLOC, "")));
    EXPECT_EQ(std::count(outcomes.begin(), outcomes.end(), ""), pauses.count);
    EXPECT_THAT(outcomes, Contains(BAD_ALLOC));
}

TEST_F(CommonFault, OutOfMemoryTheReportOfAMissingFileIsItselfOrABadAlloc)
{
    const std::string path = directory_.file("a file with a long name");
    no_pauses pauses;
    const texts_t outcomes = outcomes_of_each_failing_allocation([&] {
        try {
            file_helper().open(path, INPUT);
        } catch (const vesk_ex& error) {
            const std::string text = error.what();
            // One of the tries may have been the one without memory.
            if (text.rfind("Failed opening file ", 0) != 0)
                throw;
        }
    });
    EXPECT_THAT(outcomes, Each(AnyOf(BAD_ALLOC, "")));
    EXPECT_THAT(outcomes, Contains(BAD_ALLOC));
}

TEST_F(CommonFault, OutOfMemoryAFileReadIntoOneStringIsWholeOrABadAlloc)
{
    const std::string content = sample_bytes(25000);
    const std::string path = save("a file with a long name", content);
    const no_pauses pauses;

    const texts_t outcomes = outcomes_of_each_failing_allocation([&] {
        file_helper file;
        file.open(path, INPUT);
        std::string read;
        if (!file.read(read) || read != content)
            throw std::runtime_error("not whole");
    });

    EXPECT_THAT(outcomes, Each(AnyOf(BAD_ALLOC, "")));
}

TEST_F(CommonFault, OutOfMemoryACaptureIsReadWholeOrEndsAsAnyOtherFault)
{
    // Longer than the buffer that libpcap starts with, so that it has to grow.
    const std::string payload = sample_bytes(9000);
    const std::string path = save(
        "a capture with a long name",
        capture_bytes({udp_frame({"first"}), udp_frame({payload}), udp_frame({"last"})}));

    auto ends = support::ends_of_each_failing_allocation([&](uint64_t nth) {
        std::string read;
        read.reserve(20000);
        {
            const support::failing_allocation guard(nth);
            pcap_helper reader;
            if (!reader.open(path, "udp and port 5000"))
                return; // told on standard error
            read += payloads_of(reader);
        }
        // A buffer that cannot grow is a read error, which ends the capture.
        if (read != "first" + payload + "last" && read != "first")
            throw std::runtime_error("other payloads: " + std::to_string(read.size()));
    });

    EXPECT_THAT(ends, SizeIs(testing::Ge(20u)));
    support::take_out_ends_by_the_scanner(ends);
    texts_t texts;
    for (const auto& end : ends)
        texts.push_back(end.text());
    EXPECT_THAT(
        texts, Each(AnyOf(
                   "", std::string("threw: ") + BAD_ALLOC + " ",
                   HasSubstr("threw: Open pcap file failed! Error message: "),
                   testing::StartsWith("wrote: compile fileter failed! "),
                   testing::StartsWith("wrote: set fileter failed! "))));
    EXPECT_EQ(texts.back(), "");
}

} // namespace common_fault_test
