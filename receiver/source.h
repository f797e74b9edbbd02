// What the sender must send, message by message, read in step with what arrives.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "result.h"

namespace receiver {

using bytes_view = std::span<const uint8_t>;

// A file that cannot be read or written; what() is a sentence for the user.
class file_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What there is to say about a source beside its messages. Counted in the first
// pass, as far as that has been read.
struct source_notes {
    uint64_t files{0};
    left_out omitted;
    caveats noted;
    std::vector<std::string> sentences;
};

// A sequence of messages, read forwards once. One thread.
class message_source {
public:
    message_source() = default;
    virtual ~message_source() = default;

    message_source(const message_source&) = delete;
    message_source& operator=(const message_source&) = delete;

    // The next message, valid until the next call, or false at the end. A source
    // that breaks ends there too, and error() then says why.
    virtual bool next(bytes_view& message) = 0;

    // How much of the whole has been read, 0 to 1; none for an endless source.
    virtual std::optional<double> fraction() const { return std::nullopt; }

    // Empty unless the source has ended because of an error, which ends the
    // sender as well.
    virtual std::string error() const { return {}; }

    virtual source_notes notes() const { return {}; }
};

// The part of the command line that says what is replayed.
struct source_options {
    std::string path; // a file or a folder
    bool captures{false};
    std::string filter; // of captures
    uint32_t passes{1}; // 0: endless
    bool preload{false};
};

// The files that the options name, in replay order. Throws file_error.
std::vector<std::string> source_files(const source_options& options);

// Opens what the options name. Throws file_error for a path that the sender cannot
// replay.
std::unique_ptr<message_source> open_source(const source_options& options);

} // namespace receiver
