// Captures as the sender sends them: their payloads, one message each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture_reader.h"
#include "data_source.h"
#include "source.h"

namespace receiver {

std::unique_ptr<message_source> open_captures(
    file_list list, std::string filter, bool preload);

// Capture after capture, pass after pass; those that refuse the filter are skipped.
class capture_source : public message_source {
public:
    capture_source(file_list list, std::string filter);

    bool next(bytes_view& message) override;
    std::optional<double> fraction() const override;
    std::string error() const override { return reader_.error(); }
    source_notes notes() const override;

private:
    bool next_file();
    bool next_pass();

    file_list list_;
    std::string filter_;
    capture_reader reader_;
    bool is_open_{false};
    size_t file_{0}; // the next one to open
    uint32_t pass_{0};
    bool pass_was_empty_{true};
    uint64_t refused_{0}; // in the first pass
    std::optional<source_notes> first_pass_;
};

// A single preloaded capture: from its last message to its first, always as TCP.
// The capture is read once to find the places from which its parts are read again.
class reversed_capture_source : public message_source {
public:
    explicit reversed_capture_source(file_list list);

    bool next(bytes_view& message) override;
    std::optional<double> fraction() const override;
    std::string error() const override { return error_; }
    source_notes notes() const override;

private:
    // Some frames in a row and how many messages they give.
    struct part {
        int64_t position;
        size_t messages;
    };

    void index();
    bool read_part(const part& wanted);
    void read_part_from_start(size_t number);

    file_list list_;
    capture_reader reader_;
    source_notes notes_;
    std::string error_;
    std::vector<part> parts_;
    size_t part_{0}; // parts still to be read in this pass
    uint32_t pass_{0};
    std::vector<std::vector<uint8_t>> messages_; // of the current part
};

} // namespace receiver
