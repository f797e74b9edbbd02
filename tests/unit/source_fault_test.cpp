// The sources when what libpcap and the C++ library do for them fails: the reads of a
// capture, the closing of any file, and a position that cannot be told.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <ios>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common.h"
#include "support/call_seam.h"
#include "support/capture_builder.h"
#include "support/output_capture.h"
#include "support/payloads.h"
#include "support/scratch_dir.h"
#include "support/thrown.h"

namespace source_fault_test {

namespace call = support::call;
using support::capture_bytes;
using support::payloads_of;
using support::sample_bytes;
using support::text_thrown_by;
using support::udp_frame;
using vesk::MAX_BUFFER_SIZE;
using vesk::details::file_helper;
using vesk::details::pcap_helper;

constexpr std::ios_base::openmode INPUT = std::ios_base::in | std::ios_base::binary;

// --------------------------------------------------------------- reading a capture

// Files that the C library opens from now on hold these bytes and give them as `read`
// says, which gets a buffer, its size, and where in the bytes the reader is.
class scripted_file {
public:
    using read_t = std::function<ssize_t(char* buffer, size_t size, size_t position)>;

    scripted_file(std::string bytes, read_t read)
        : bytes_(std::move(bytes)), read_(std::move(read))
    {}

    // As many as there are, up to `count`.
    ssize_t give(char* buffer, size_t count) const
    {
        count = std::min(count, bytes_.size() - position_);
        std::memcpy(buffer, bytes_.data() + position_, count);
        return static_cast<ssize_t>(count);
    }

private:
    static ssize_t read(void* self, char* buffer, size_t size)
    {
        auto* file = static_cast<scripted_file*>(self);
        const ssize_t count = file->read_(buffer, size, file->position_);
        file->position_ += static_cast<size_t>(std::max<ssize_t>(count, 0));
        return count;
    }

    const std::string bytes_;
    const read_t read_;
    size_t position_{0};
    support::scoped_call<call::fopen> hook_{[this](const char*, const char* mode) {
        cookie_io_functions_t functions{};
        functions.read = read;
        return ::fopencookie(this, mode, functions);
    }};
};

std::string text_thrown_by_opening(const std::string& path)
{
    return text_thrown_by([&] { pcap_helper().open(path, "udp"); });
}

ssize_t failed(int error)
{
    errno = error;
    return -1;
}

TEST(CaptureReads, ThatAreCutShortAreJoinedToWholeFrames)
{
    const std::string payload = sample_bytes(9000);
    const std::string bytes =
        capture_bytes({udp_frame({"first "}), udp_frame({payload}), udp_frame({"last"})});
    for (const size_t most : {size_t{1}, size_t{7}, size_t{4095}}) {
        const support::output_capture output;
        const scripted_file* file = nullptr;
        const scripted_file scripted(bytes, [&](char* buffer, size_t size, size_t) {
            return file->give(buffer, std::min(size, most));
        });
        file = &scripted;
        pcap_helper reader;

        ASSERT_TRUE(reader.open("a.pcap", "udp")) << most;

        EXPECT_EQ(payloads_of(reader), "first " + payload + "last") << most;
    }
}

class FaultOfACapturesRead : public testing::TestWithParam<int> {
protected:
    // The capture gives so many bytes, and then the error.
    void fail_behind(size_t count)
    {
        file_.reset(); // hooks nest
        file_ = std::make_unique<scripted_file>(
            bytes_, [this, count](char* buffer, size_t size, size_t position) {
                return position == count
                           ? failed(GetParam())
                           : file_->give(buffer, std::min(size, count - position));
            });
    }

    const std::string first_ = capture_bytes({udp_frame({"one "}), udp_frame({"two"})});
    const std::string bytes_ =
        capture_bytes({udp_frame({"one "}), udp_frame({"two"}), udp_frame({"three"})});
    std::unique_ptr<scripted_file> file_;
    const support::output_capture output_;
};

TEST_P(FaultOfACapturesRead, InTheFilesHeaderIsToldInLibpcapsWords)
{
    for (const size_t count : {size_t{0}, size_t{3}, size_t{4}, size_t{23}}) {
        fail_behind(count);
        EXPECT_EQ(
            text_thrown_by_opening("a.pcap"),
            std::string(
                "Open pcap file failed! Error message: error reading dump file: ") +
                std::strerror(GetParam()))
            << count;
    }
}

TEST_P(FaultOfACapturesRead, EndsItBehindTheLastWholeFrame)
{
    // In the third record: in front of it, in its header, in its frame.
    for (const size_t more : {size_t{0}, size_t{7}, size_t{16}, size_t{20}}) {
        fail_behind(first_.size() + more);
        pcap_helper reader;
        ASSERT_TRUE(reader.open("a.pcap", "udp")) << more;
        EXPECT_EQ(payloads_of(reader), "one two") << more;
    }
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfACapturesRead,
    testing::Values(EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR, ENOMEM, ESTALE));

// --------------------------------------------------------------- closing

class FaultOfFclose : public testing::TestWithParam<int> {
protected:
    std::string save(const std::string& name, const std::string& bytes) const
    {
        support::write_file(directory_.file(name), bytes);
        return directory_.file(name);
    }

    support::scratch_dir directory_;
    int closed_{0};
    std::unique_ptr<support::scoped_call<call::fclose>> hook_;

    // The stream is gone whatever the call says.
    void fail_to_close()
    {
        hook_ = std::make_unique<support::scoped_call<call::fclose>>([this](FILE* file) {
            ++closed_;
            support::real<call::fclose>(file);
            errno = GetParam();
            return EOF;
        });
    }
};

TEST_P(FaultOfFclose, OfADataFileIsNotRepeatedAndTheNextFileIsReadWhole)
{
    const std::string first = save("first", sample_bytes(12000));
    const std::string second = save("second", sample_bytes(25000, 2));
    file_helper file;
    fail_to_close();

    for (const std::string& path : {first, second, first}) {
        file.open(path, INPUT);
        std::string content;
        EXPECT_TRUE(file.read(content));
        EXPECT_EQ(
            content,
            sample_bytes(path == second ? 25000 : 12000, path == second ? 2 : 1));
        file.close();
    }

    EXPECT_EQ(closed_, 3);
}

TEST_P(FaultOfFclose, OfACaptureIsNotRepeatedAndTheNextIsReadWhole)
{
    const std::string path = save("a.pcap", capture_bytes({udp_frame({"payload"})}));
    const support::output_capture output;
    pcap_helper reader;
    fail_to_close();

    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(reader.open(path, "udp"));
        EXPECT_EQ(payloads_of(reader), "payload");
        reader.close();
    }

    EXPECT_EQ(closed_, 3);
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfFclose, testing::Values(EBADF, EINTR, EIO, ENOSPC));

// --------------------------------------------------------------- the position

// What came of a block before its read failed is known by the position alone.
class FaultOfReadWithoutAPosition : public testing::TestWithParam<bool> {};

TEST_P(FaultOfReadWithoutAPosition, EndsTheFileBehindTheLastWholeBlock)
{
    const support::scratch_dir directory;
    const std::string content = sample_bytes(30000);
    support::write_file(directory.file("file"), content);
    bool told = GetParam(); // whether the position can be told to begin with
    const support::scoped_call<call::lseek> lseek([&](int fd, off_t offset, int whence) {
        if (told)
            return support::real<call::lseek>(fd, offset, whence);
        errno = ESPIPE;
        return off_t{-1};
    });
    file_helper file;
    file.open(directory.file("file"), INPUT);
    told = false;
    size_t good = 12000;
    const support::scoped_call<call::read> read(
        [&](int fd, void* buffer, size_t length) -> ssize_t {
            if (good == 0)
                return failed(EIO);
            const ssize_t count =
                support::real<call::read>(fd, buffer, std::min(length, good));
            good -= static_cast<size_t>(std::max<ssize_t>(count, 0));
            return count;
        });

    std::string delivered;
    (void)file.read(delivered);

    EXPECT_EQ(delivered, content.substr(0, MAX_BUFFER_SIZE));
    EXPECT_TRUE(file.file_end());
}

INSTANTIATE_TEST_SUITE_P(
    FromTheStartAndLater, FaultOfReadWithoutAPosition, testing::Bool());

} // namespace source_fault_test
