// Standard output, as descriptor 1 gets it, for one scope. Both the stream and
// C standard I/O are caught; the text may be looked at while threads write.
#pragma once

#include <cstdio>
#include <iostream>
#include <string>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/call_seam.h"

namespace support {

class output_capture {
public:
    output_capture()
        : file_(::memfd_create("standard output", MFD_CLOEXEC)), saved_(::dup(1))
    {
        flush();
        ::dup2(file_, 1);
    }
    ~output_capture()
    {
        flush();
        ::dup2(saved_, 1);
        real<call::close>(saved_);
        // The reports of a failed test went there, too; they stand near the end.
        if (testing::Test::HasFailure())
            std::cerr << last_of(unflushed_text());
        real<call::close>(file_);
    }
    output_capture(const output_capture&) = delete;
    output_capture& operator=(const output_capture&) = delete;

    // What has been written since the start. It flushes nothing: the program's
    // lines must reach the descriptor by themselves.
    std::string unflushed_text() const
    {
        struct ::stat status = {};
        ::fstat(file_, &status);
        std::string text(static_cast<size_t>(status.st_size), '\0');
        const ssize_t n = ::pread(file_, text.data(), text.size(), 0);
        text.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return text;
    }

    std::string text() const
    {
        flush();
        return unflushed_text();
    }

private:
    static std::string last_of(const std::string& text)
    {
        constexpr size_t ENOUGH = 10000;
        return text.size() > ENOUGH ? text.substr(text.size() - ENOUGH) : text;
    }

    static void flush()
    {
        std::cout.flush();
        std::fflush(stdout);
    }

    int file_;
    int saved_;
};

} // namespace support
