// Arbitrary contents as a data file, read in blocks by both programs.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "byte_feed.h"
#include "check.h"
#include "common.h"
#include "data_source.h"
#include "memory_file.h"
#include "support/capture_builder.h"

namespace {

using fuzz::byte_feed;
using fuzz::require;
using vesk::details::file_helper;

constexpr size_t MESSAGE = 10240;
constexpr std::ios_base::openmode READ = std::ios_base::in | std::ios_base::binary;

// Around whole numbers of blocks more often than elsewhere; what the input has left
// comes last.
std::string draw_contents(byte_feed& feed)
{
    constexpr size_t EDGES[] = {0,     1,     8191,  8192,   10239,  10240,
                                10241, 20480, 30719, 122880, 122881, 200000};
    const size_t size = feed.flag() ? feed.pick(EDGES) : feed.count(65535);
    const auto seed = static_cast<uint32_t>(feed.byte());
    return support::sample_bytes(size, seed) + feed.text(SIZE_MAX);
}

// Reads on to the end in blocks of `wanted` bytes, of which all but the last are full.
std::string rest_of(file_helper& file, size_t wanted)
{
    std::string all;
    const auto buffer = std::make_unique<char[]>(wanted);
    bool complete = true;
    while (!file.file_end()) {
        size_t length = wanted;
        require(complete, "an incomplete block is the last one");
        complete = file.read(buffer.get(), length);
        require(complete == (length == wanted), "a block is complete when it is full");
        require(complete == !file.file_end(), "the end shows in the last block");
        all.append(buffer.get(), length);
    }
    return all;
}

void check_blocks(const std::string& path, const std::string& contents, size_t wanted)
{
    file_helper file;
    file.open(path, READ);
    require(!file.file_end(), "an opened file has not ended");
    require(file.file_size() == contents.size(), "the size is the contents'");
    require(rest_of(file, wanted) == contents, "the blocks add up to the contents");
    file.seek_head();
    require(!file.file_end(), "from its head a file can be read again");
    require(rest_of(file, MESSAGE) == contents, "read again it is the same");
    require(file.file_size() == contents.size(), "the size is there at the end, too");
    file.close();
    require(file.file_size() == 0, "a closed file has no size");
}

// Some blocks, and what is left in one go.
void check_rest(const std::string& path, const std::string& contents, size_t wanted)
{
    file_helper file;
    file.open(path, READ);
    const auto buffer = std::make_unique<char[]>(wanted);
    size_t length = wanted;
    const bool complete = file.read(buffer.get(), length);
    if (!complete)
        return;
    std::string rest;
    require(file.read(rest) == !rest.empty(), "the result tells whether there was any");
    require(
        std::string(buffer.get(), length) + rest == contents,
        "a block and the rest are the contents");
    require(file.file_end(), "behind the rest is the end");
}

std::vector<std::string> blocks_of(const std::string& contents)
{
    std::vector<std::string> blocks;
    for (size_t from = 0; from < contents.size(); from += MESSAGE)
        blocks.push_back(contents.substr(from, MESSAGE));
    return blocks;
}

std::vector<std::string> messages_of(receiver::message_source& source)
{
    std::vector<std::string> all;
    receiver::bytes_view message;
    while (source.next(message))
        all.emplace_back(message.begin(), message.end());
    require(source.error().empty(), "a file that is there can be read");
    return all;
}

void check_receiver(const std::string& path, const std::string& contents, uint32_t passes)
{
    receiver::file_list list;
    list.files = {path};
    list.passes = passes;
    std::vector<std::string> pass = blocks_of(contents);
    std::vector<std::string> all;
    for (uint32_t i = 0; i < passes; ++i)
        all.insert(all.end(), pass.begin(), pass.end());
    receiver::data_source forwards(list);
    require(messages_of(forwards) == all, "the receiver awaits every block");

    std::reverse(all.begin(), all.end());
    receiver::reversed_data_source backwards(list);
    require(messages_of(backwards) == all, "preloaded, it awaits the last one first");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static fuzz::memory_file file;
    byte_feed feed(data, size);
    const size_t wanted = feed.flag() ? MESSAGE : 1 + feed.count(40000);
    const auto passes = static_cast<uint32_t>(feed.number(1, 3));
    const std::string contents = draw_contents(feed);
    file.write(contents);
    check_blocks(file.path(), contents, std::max(wanted, contents.size() / 1000));
    check_rest(file.path(), contents, wanted);
    check_receiver(file.path(), contents, passes);
    return 0;
}
