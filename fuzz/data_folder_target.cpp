// A folder with arbitrary names of arbitrary kinds, and arbitrary paths into it.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "byte_feed.h"
#include "check.h"
#include "common.h"
#include "source.h"
#include "support/scratch_dir.h"
#include "tcp_replay.h"

namespace {

using fuzz::byte_feed;
using fuzz::require;
using vesk::details::FileType;

constexpr size_t MOST_ENTRIES = 8;

enum class kind { file, folder, link_to_nothing, link_to_file, pipe };

struct entry {
    std::string name;
    kind what;
};

// Names that the kernel takes; others are changed a little.
std::string draw_name(byte_feed& feed)
{
    std::string name = feed.text(feed.count(24));
    for (char& c : name) {
        if (c == '/' || c == '\0')
            c = '0';
    }
    return name.empty() || name == "." || name == ".." ? name + "f" : name;
}

// False for a name that is taken.
bool make_entry(const std::string& path, kind what)
{
    switch (what) {
    case kind::folder:
        return ::mkdir(path.c_str(), 0700) == 0;
    case kind::link_to_nothing:
        return ::symlink("nowhere/at all", path.c_str()) == 0;
    case kind::link_to_file:
        return ::symlink("/proc/self/stat", path.c_str()) == 0;
    case kind::pipe:
        return ::mkfifo(path.c_str(), 0600) == 0;
    default:
        const int fd =
            ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
        return fd != -1 && ::close(fd) == 0;
    }
}

// One folder per process, filled for one input.
class filled_folder {
public:
    filled_folder(const std::string& path, byte_feed& feed) : path_(path)
    {
        constexpr kind KINDS[] = {kind::file,         kind::file,   kind::file,
                                  kind::file,         kind::folder, kind::link_to_nothing,
                                  kind::link_to_file, kind::pipe};
        for (size_t i = feed.count(MOST_ENTRIES); i > 0; --i) {
            const kind what = feed.pick(KINDS);
            const std::string name = draw_name(feed);
            if (make_entry(path_ + name, what))
                entries_.push_back({name, what});
            else
                require(errno == EEXIST, "an entry can be made");
        }
        std::sort(entries_.begin(), entries_.end(), [](const entry& a, const entry& b) {
            return ::strverscmp(a.name.c_str(), b.name.c_str()) < 0;
        });
    }
    ~filled_folder()
    {
        for (const entry& one : entries_) {
            const std::string path = path_ + one.name;
            const int rc =
                one.what == kind::folder ? ::rmdir(path.c_str()) : ::unlink(path.c_str());
            require(rc == 0, "an entry can be removed");
        }
    }
    filled_folder(const filled_folder&) = delete;
    filled_folder& operator=(const filled_folder&) = delete;

    const std::vector<entry>& entries() const { return entries_; } // in version order

private:
    std::string path_;
    std::vector<entry> entries_;
};

// A link to nothing counts as what stands in front of it, and there the folder's own
// two entries count as well.
std::vector<std::string> expected_files(
    const std::string& folder, std::vector<entry> entries)
{
    for (const char* own : {".", ".."})
        entries.push_back({own, kind::folder});
    std::sort(entries.begin(), entries.end(), [](const entry& a, const entry& b) {
        return ::strverscmp(a.name.c_str(), b.name.c_str()) < 0;
    });
    std::vector<std::string> files;
    bool listed = false;
    for (const entry& one : entries) {
        if (one.what != kind::link_to_nothing)
            listed = one.what == kind::file || one.what == kind::link_to_file;
        if (listed)
            files.push_back(folder + one.name);
    }
    return files;
}

void check_folder(const std::string& path, const filled_folder& folder)
{
    const std::vector<std::string> expected = expected_files(path, folder.entries());
    for (std::string name : {path, path.substr(0, path.size() - 1)}) {
        require(
            vesk::details::decode_filename(name) == expected,
            "the files are listed in version order");
        require(name == path, "the name gets the slash that it lacks");
    }

    receiver::source_options options;
    options.path = path;
    std::vector<std::string> awaited;
    try {
        awaited = receiver::source_files(options);
    } catch (const receiver::file_error&) {
        require(expected.empty(), "only a folder without files is an error");
    }
    require(awaited == expected, "the receiver lists the same files");
}

// What stat says of a path.
FileType plain_type(const std::string& path, bool& exists)
{
    struct stat status {};
    exists = ::stat(path.c_str(), &status) == 0;
    if (!exists)
        return FileType::UNKNOWN;
    return S_ISDIR(status.st_mode)   ? FileType::DIR
           : S_ISREG(status.st_mode) ? FileType::REG
           : S_ISCHR(status.st_mode) ? FileType::CHR
                                     : FileType::UNKNOWN;
}

// The sender's choice of files for any path: files, an error with its words, or
// nothing that exists.
void check_path(const std::string& path)
{
    bool exists = false;
    const FileType expected = plain_type(path, exists);
    FileType type = FileType::CHR; // stays as it is when there is nothing
    require(vesk::details::path_exists(path, type) == exists, "a path exists or not");
    require(type == (exists ? expected : FileType::CHR), "a path's kind is stat's");

    std::string name = path;
    std::string single;
    std::vector<std::string> files;
    try {
        vesk::details::collect_files(type, name, single, files);
        require(type == FileType::DIR || type == FileType::REG, "others are no files");
        require(!files.empty(), "there is something to replay");
        require(single == (type == FileType::REG ? path : ""), "one file keeps its name");
    } catch (const vesk::details::vesk_ex& error) {
        const std::string words = error.what();
        require(
            words == "Not support file type." || words == "No files in dir " + name ||
                words == "Dir " + name + " no files",
            "an error has its own words");
        require(files.empty(), "an error leaves no file");
    }
}

void check_missing_file(const std::string& path)
{
    vesk::details::file_helper file;
    try {
        file.open(path, std::ios_base::in | std::ios_base::binary);
    } catch (const vesk::details::vesk_ex& error) {
        require(
            error.what() == "Failed opening file " + path +
                                " for reading. errno: " + std::to_string(ENOENT),
            "a missing file is named");
        return;
    }
    require(false, "a missing file does not open");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const support::scratch_dir scratch;
    const std::string path = scratch.path() + "/";
    byte_feed feed(data, size);
    const filled_folder folder(path, feed);
    check_folder(path, folder);
    for (const entry& one : folder.entries()) {
        check_path(path + one.name);
        if (one.what == kind::link_to_nothing)
            check_missing_file(path + one.name);
    }
    // Wherever it leads, nothing there is opened. A path has no zero bytes.
    check_path((path + feed.text(SIZE_MAX)).c_str());
    return 0;
}
