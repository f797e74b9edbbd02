// Runs a target on every file of the folders that are named, once, without a fuzzer:
// what once was worth keeping is tried again by every test run, under any compiler.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

void add_files(const fs::path& folder, std::vector<fs::path>& files)
{
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        if (entry.is_regular_file())
            files.push_back(entry.path());
    }
}

std::vector<uint8_t> contents_of(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw fs::filesystem_error(
            "cannot be read", path, std::make_error_code(std::errc::io_error));
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void run(const fs::path& path)
{
    const std::vector<uint8_t> input = contents_of(path);
    // Whatever ends the process in there, its input is the last one named.
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    (void)LLVMFuzzerTestOneInput(input.data(), input.size()); // always 0
}

} // namespace

int main(int argc, char** argv)
{
    try {
        std::vector<fs::path> files;
        for (int i = 1; i < argc; ++i)
            add_files(argv[i], files);
        std::sort(files.begin(), files.end());
        for (const fs::path& file : files)
            run(file);
        std::printf("%zu inputs\n", files.size());
        return files.empty() ? 1 : 0; // nothing tried is no success
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
