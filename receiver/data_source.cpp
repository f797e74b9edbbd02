// See data_source.h.
#include "data_source.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common.h"
#include "result.h"

namespace receiver {

namespace {

constexpr size_t BLOCK = vesk::MAX_BUFFER_SIZE;
// Few enough bytes to stay in the cache between the read and the comparison.
constexpr size_t BUFFERED_BLOCKS = 12;

std::string cannot_open(const std::string& path, int error)
{
    return fmt::format("{}: {}", path, std::strerror(error));
}

} // namespace

bool input_file::open(const std::string& path)
{
    close();
    int error = 0;
    for (int tries = 0; tries < 5; ++tries) {
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ != -1)
            return true;
        error = errno; // the sleep may overwrite it
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    errno = error;
    return false;
}

void input_file::close()
{
    if (fd_ != -1)
        (void)::close(fd_); // nothing was written
    fd_ = -1;
}

// A read error ends the file, as it does for the sender.
size_t input_file::read(uint8_t* buffer, size_t size, uint64_t position) const
{
    size_t count = 0;
    while (count < size) {
        const ssize_t n = ::pread(
            fd_, buffer + count, size - count, static_cast<off_t>(position + count));
        if (n == -1 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        count += static_cast<size_t>(n);
    }
    return count;
}

uint64_t input_file::size() const
{
    struct stat status {};
    return ::fstat(fd_, &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

source_notes empty_source::notes() const
{
    source_notes notes;
    notes.files = list_.files.size();
    notes.omitted.entries = list_.entries;
    notes.sentences.emplace_back(
        "a folder of several files is not preloaded: with --preload 1 nothing of it is sent");
    return notes;
}

// ----------------------------------------------------------------------- forwards

data_source::data_source(file_list list)
    : list_(std::move(list)), buffer_(BUFFERED_BLOCKS * BLOCK)
{
    for (const std::string& path : list_.files) {
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0)
            total_ += static_cast<uint64_t>(status.st_size);
    }
}

bool data_source::next(bytes_view& message)
{
    while (unread_.empty()) {
        if (!fill())
            return false;
    }
    message = unread_.first(std::min(BLOCK, unread_.size()));
    unread_ = unread_.subspan(message.size());
    done_ += message.size();
    pass_was_empty_ = false;
    return true;
}

// False at the end of the last pass. True with nothing read at the end of a file.
bool data_source::fill()
{
    if (!input_.is_open() && !next_file())
        return false;
    const size_t count = input_.read(buffer_.data(), buffer_.size(), position_);
    position_ += count;
    unread_ = bytes_view(buffer_).first(count);
    if (count < buffer_.size())
        input_.close(); // a file that grows is read up to here
    return true;
}

bool data_source::next_file()
{
    if (!error_.empty())
        return false;
    if (file_ == list_.files.size()) {
        // An endless replay of nothing is nothing.
        if (pass_ + 1 == list_.passes || pass_was_empty_)
            return false;
        ++pass_;
        file_ = 0;
        pass_was_empty_ = true;
    }
    position_ = 0;
    if (input_.open(list_.files[file_++]))
        return true;
    error_ = cannot_open(list_.files[file_ - 1], errno);
    return false;
}

std::optional<double> data_source::fraction() const
{
    if (list_.passes == 0 || total_ == 0)
        return std::nullopt;
    return std::min(
        1.0, static_cast<double>(done_) /
                 (static_cast<double>(total_) * static_cast<double>(list_.passes)));
}

source_notes data_source::notes() const
{
    source_notes notes;
    notes.files = list_.files.size();
    notes.omitted.entries = list_.entries;
    return notes;
}

// ---------------------------------------------------------------------- backwards

reversed_data_source::reversed_data_source(file_list list)
    : list_(std::move(list)), buffer_(BUFFERED_BLOCKS * BLOCK)
{
    if (!input_.open(list_.files[0])) {
        error_ = cannot_open(list_.files[0], errno);
        return;
    }
    size_ = input_.size();
    blocks_ = (size_ + BLOCK - 1) / BLOCK;
    left_ = blocks_;
    first_block_ = blocks_;
}

bool reversed_data_source::next(bytes_view& message)
{
    if (blocks_ == 0)
        return false;
    if (left_ == 0) {
        if (pass_ + 1 == list_.passes)
            return false;
        ++pass_;
        left_ = blocks_;
        first_block_ = blocks_;
    }
    --left_;
    if (left_ < first_block_)
        fill(left_);
    const uint64_t position = left_ * BLOCK;
    message = bytes_view(buffer_).subspan(
        static_cast<size_t>(position - first_block_ * BLOCK),
        static_cast<size_t>(std::min<uint64_t>(BLOCK, size_ - position)));
    return true;
}

void reversed_data_source::fill(uint64_t last_block)
{
    first_block_ = last_block + 1 - std::min<uint64_t>(last_block + 1, BUFFERED_BLOCKS);
    std::fill(buffer_.begin(), buffer_.end(), uint8_t{0});
    (void)input_.read(buffer_.data(), buffer_.size(), first_block_ * BLOCK);
}

std::optional<double> reversed_data_source::fraction() const
{
    if (list_.passes == 0 || blocks_ == 0)
        return std::nullopt;
    const auto done = static_cast<double>(blocks_ - left_);
    const auto all = static_cast<double>(blocks_) * static_cast<double>(list_.passes);
    return (static_cast<double>(pass_) * static_cast<double>(blocks_) + done) / all;
}

source_notes reversed_data_source::notes() const
{
    source_notes notes;
    notes.files = 1;
    notes.omitted.entries = list_.entries;
    return notes;
}

} // namespace receiver
