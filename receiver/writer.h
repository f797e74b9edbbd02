// Keeps what arrives: bytes as a data file, datagrams as a capture.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <netinet/in.h>
#include <pcap/pcap.h>

#include "output_file.h"
#include "result.h"
#include "source.h"
#include "udp_input.h"

namespace receiver {

// Both take a file that is open, and throw file_error when it cannot be written.
class data_writer {
public:
    explicit data_writer(output_file&& file);

    void write(bytes_view bytes) { file_.write(bytes); }
    void finish() { file_.finish(); }

private:
    output_file file_;
};

// Each datagram becomes a frame with the addresses that it had.
class capture_writer {
public:
    explicit capture_writer(output_file&& file);

    void write(const received_datagram& datagram, in_port_t port);
    void finish();

private:
    struct close_capture {
        void operator()(pcap_t* capture) const { ::pcap_close(capture); }
    };
    struct close_dump {
        void operator()(pcap_dumper_t* dump) const { ::pcap_dump_close(dump); }
    };

    void check();

    std::string path_;
    std::unique_ptr<pcap_t, close_capture> format_;
    std::unique_ptr<pcap_dumper_t, close_dump> dump_;
    std::vector<uint8_t> frame_;
};

// A file that a run keeps, if it keeps one. When it cannot be written the run goes
// on without it, and the result says so.
template <class writer_t>
class kept_file {
public:
    // An empty path keeps nothing. What is in the file stays until begin(). Throws
    // file_error.
    explicit kept_file(const std::string& path) : file_(path) {}

    // The run begins.
    void begin()
    {
        attempt([this] {
            if (file_.is_open())
                writer_.emplace(std::move(file_));
        });
    }

    template <class write_t>
    void write(write_t write_to)
    {
        if (writer_)
            attempt([&] { write_to(*writer_); });
    }

    void finish(run_result& result)
    {
        write([](writer_t& file) { file.finish(); });
        if (has_failed())
            result.problems.push_back(problem_);
    }

    bool has_failed() const { return !problem_.empty(); }

private:
    template <class action_t>
    void attempt(action_t action)
    {
        try {
            action();
        } catch (const file_error& error) {
            problem_ = error.what();
            writer_.reset();
        }
    }

    output_file file_;
    std::optional<writer_t> writer_;
    std::string problem_;
};

} // namespace receiver
