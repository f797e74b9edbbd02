// A file that has a path but lies on no disk; written anew for each input.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <sys/mman.h>
#include <unistd.h>

#include "check.h"

namespace fuzz {

class memory_file {
public:
    memory_file() : fd_(::memfd_create("input", MFD_CLOEXEC))
    {
        require(fd_ != -1, "the kernel has a file to give");
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~memory_file() { (void)::close(fd_); } // nobody will read it again

    memory_file(const memory_file&) = delete;
    memory_file& operator=(const memory_file&) = delete;

    const std::string& path() const { return path_; }

    void write(std::string_view bytes)
    {
        require(::ftruncate(fd_, 0) == 0, "the file can be emptied");
        const ssize_t written = ::pwrite(fd_, bytes.data(), bytes.size(), 0);
        require(
            written == static_cast<ssize_t>(bytes.size()), "the file takes its bytes");
    }

private:
    int fd_;
    std::string path_;
};

} // namespace fuzz
