// The threads of this process as the kernel lists them, by name.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/eventually.h"

namespace support {

inline int threads_named(const std::string& name)
{
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "comm");
        std::string line;
        if (std::getline(file, line) && line == name)
            ++count;
    }
    return count;
}

// Within the limit. A thread that has been joined, by an earlier test as well, may stay
// listed for a moment.
inline bool has_threads_named(
    int count, const std::string& name,
    std::chrono::seconds limit = std::chrono::seconds(60))
{
    return eventually([&] { return threads_named(name) == count; }, limit);
}

} // namespace support
