// An own directory for one test, removed with everything in it.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

#include <stdlib.h>

namespace support {

class scratch_dir {
public:
    scratch_dir()
        : path_((std::filesystem::temp_directory_path() / "replay-XXXXXX").string())
    {
        if (::mkdtemp(path_.data()) == nullptr)
            throw std::runtime_error("no directory for a test");
    }
    ~scratch_dir()
    {
        std::error_code ignored; // a leftover is not what the test is about
        std::filesystem::remove_all(path_, ignored);
    }
    scratch_dir(const scratch_dir&) = delete;
    scratch_dir& operator=(const scratch_dir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

} // namespace support
