// The payloads of one capture, cut as the sender cuts them, with a count of what
// is left out.
#pragma once

#include <cstdint>
#include <string>

#include <pcap/pcap.h>

#include "common.h"
#include "source.h"

namespace receiver {

class capture_reader {
public:
    capture_reader() = default;
    ~capture_reader() { close(); }

    capture_reader(const capture_reader&) = delete;
    capture_reader& operator=(const capture_reader&) = delete;

    enum class opened { filtered, refused, failed };

    // `failed` ends the sender, and error() says why. After `refused` the capture
    // is open, without a filter. The filter has to name its transport.
    opened open(const std::string& path, const std::string& filter);
    void close();

    // The next piece of a payload, valid until the next call, or false at the end and
    // while nothing is open. Then error() tells whether the sender ends there too.
    bool next(bytes_view& piece);

    // All pieces of the last frame have been read.
    bool at_frame_start() const { return rest_.empty(); }

    // Of the frame that follows, in the file. Only to be called at a frame's start.
    int64_t position() const;
    bool seek(int64_t position);

    // 0 to 1.
    double fraction() const;

    const std::string& error() const { return error_; }
    const source_notes& notes() const { return notes_; }
    void stop_noting() { noting_ = false; }

private:
    bool next_payload();
    void take_payload(const pcap_pkthdr& header, const u_char* frame);
    bool is_possible(const pcap_pkthdr& header);
    void note(std::string sentence);
    void note_end(int result);

    std::string path_;
    pcap_t* capture_{nullptr};
    bpf_program program_{};
    bool has_program_{false};
    int64_t size_{0};
    vesk::details::DataType transport_{vesk::details::DataType::UNKNOWN};
    bytes_view rest_; // of the payload, in libpcap's frame
    std::string error_;
    bool noting_{true};
    source_notes notes_; // of all captures opened while noting
};

} // namespace receiver
