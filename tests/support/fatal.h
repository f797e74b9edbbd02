// Expecting one of the fatal checks: the process ends by abort() and its whole
// standard error is the check's one line.
#pragma once

#include <csignal>
#include <string>

#include <gtest/gtest.h>

namespace support {

// `text` as it stands, behind it the header's name and any line number.
inline std::string fatal_line(const std::string& text, const std::string& header)
{
    std::string pattern = "^";
    for (const char c : text + " (" + header + ":") {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos)
            pattern += '\\';
        pattern += c;
    }
    return pattern + "[0-9]+\\)\n$";
}

} // namespace support

// Threads may be running, so the statement runs in a program started afresh.
#define EXPECT_FATAL(statement, text, header)                                            \
    do {                                                                                 \
        GTEST_FLAG_SET(death_test_style, "threadsafe");                                  \
        EXPECT_EXIT(                                                                     \
            statement, testing::KilledBySignal(SIGABRT),                                 \
            support::fatal_line((text), (header)));                                      \
    } while (false)
