// A file that is opened before a run, so that a run is not spent in vain, and written
// when there is something to write.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "source.h"

namespace receiver {

// "PATH: cannot be written: ..." with errno's text.
[[noreturn]] void cannot_write(const std::string& path);

// What was in the file stays there until begin(). A file that did not exist and was
// never begun is removed again.
class output_file {
public:
    // An empty path is no file. Throws file_error when the path cannot be written.
    explicit output_file(const std::string& path);
    ~output_file();

    output_file(output_file&& other) noexcept = default;
    output_file& operator=(output_file&& other) = delete;

    bool is_open() const { return file_ != nullptr; }
    const std::string& path() const { return path_; }

    // Empties the file. Throws file_error.
    void begin();

    std::FILE* stream() const { return file_.get(); }

    // Gives the stream away, open.
    std::FILE* release() { return file_.release(); }

    void write(bytes_view bytes);
    void write(std::string_view text);

    // Makes sure that all of it has been written, and closes.
    void finish();

private:
    struct close_file {
        void operator()(std::FILE* file) const { (void)std::fclose(file); }
    };

    std::string path_;
    std::unique_ptr<std::FILE, close_file> file_;
    bool is_new_{false};
};

} // namespace receiver
