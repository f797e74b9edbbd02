// See source.h. Finds the files of a replay and picks their reader.
#include "source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "capture_source.h"
#include "common.h"
#include "data_source.h"

namespace receiver {

namespace {

// Entries of a folder, whatever they are.
uint64_t count_entries(const std::string& folder)
{
    std::error_code ignored; // the files have just been listed
    uint64_t count = 0;
    for (auto entry = std::filesystem::directory_iterator(folder, ignored);
         entry != std::filesystem::directory_iterator(); entry.increment(ignored))
        ++count;
    return count;
}

std::vector<std::string> list_folder(std::string folder)
{
    std::vector<std::string> files;
    try {
        files = vesk::details::decode_filename(folder);
    } catch (const vesk::details::vesk_ex& error) {
        throw file_error(fmt::format("{}: the folder cannot be read", folder));
    }
    if (files.empty())
        throw file_error(fmt::format("{}: no regular file in this folder", folder));
    return files;
}

} // namespace

std::vector<std::string> source_files(const source_options& options)
{
    using vesk::details::FileType;
    FileType type = FileType::UNKNOWN;
    if (!vesk::details::path_exists(options.path, type))
        throw file_error(fmt::format("{}: {}", options.path, std::strerror(errno)));
    if (type == FileType::DIR)
        return list_folder(options.path);
    if (type == FileType::REG)
        return {options.path};
    throw file_error(
        fmt::format("{}: neither a regular file nor a folder", options.path));
}

std::unique_ptr<message_source> open_source(const source_options& options)
{
    file_list list;
    list.passes = options.passes;
    list.files = source_files(options);
    if (std::filesystem::is_directory(options.path)) {
        const uint64_t entries = count_entries(options.path);
        list.entries = entries - std::min<uint64_t>(entries, list.files.size());
    }

    // The sender takes only a single file into memory, and of a folder it then
    // sends nothing.
    const bool single = list.files.size() == 1;
    if (options.preload && !single)
        return std::make_unique<empty_source>(std::move(list));
    if (options.captures)
        return open_captures(std::move(list), options.filter, options.preload);
    if (options.preload)
        return std::make_unique<reversed_data_source>(std::move(list));
    return std::make_unique<data_source>(std::move(list));
}

} // namespace receiver
