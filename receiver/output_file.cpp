// See output_file.h.
#include "output_file.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace receiver {

void cannot_write(const std::string& path)
{
    throw file_error(
        fmt::format("{}: cannot be written: {}", path, std::strerror(errno)));
}

output_file::output_file(const std::string& path) : path_(path)
{
    if (path.empty())
        return;
    struct stat status {};
    is_new_ = ::stat(path.c_str(), &status) != 0;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd == -1)
        cannot_write(path_);
    file_.reset(::fdopen(fd, "wb"));
    if (file_ == nullptr) {
        const int error = errno; // close() may overwrite it
        (void)::close(fd);
        errno = error;
        cannot_write(path_);
    }
    // cppcheck-suppress resourceLeak ; file_ has it now, and cannot_write() throws
}

output_file::~output_file()
{
    if (file_ != nullptr && is_new_)
        (void)::unlink(path_.c_str()); // as if it had never been there
}

void output_file::begin()
{
    is_new_ = false;
    // A pipe or a device cannot be cut, and need not be.
    if (::ftruncate(::fileno(file_.get()), 0) != 0 && errno != EINVAL)
        cannot_write(path_);
}

void output_file::write(bytes_view bytes)
{
    if (std::fwrite(bytes.data(), 1, bytes.size(), file_.get()) != bytes.size())
        cannot_write(path_);
}

void output_file::write(std::string_view text)
{
    if (std::fwrite(text.data(), 1, text.size(), file_.get()) != text.size())
        cannot_write(path_);
}

void output_file::finish()
{
    if (std::fclose(file_.release()) != 0)
        cannot_write(path_);
}

} // namespace receiver
