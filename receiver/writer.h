// Keeps what arrives: bytes as a data file, datagrams as a capture.
#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pcap/pcap.h>

#include "result.h"
#include "source.h"
#include "udp_input.h"

namespace receiver {

// Throws file_error when the file cannot be created or written.
class data_writer {
public:
    explicit data_writer(const std::string& path);

    void write(bytes_view bytes);
    void finish();

private:
    struct close_file {
        void operator()(std::FILE* file) const { (void)std::fclose(file); }
    };

    std::string path_;
    std::unique_ptr<std::FILE, close_file> file_;
};

// As above. Each datagram becomes a frame with the addresses that it had.
class capture_writer {
public:
    explicit capture_writer(const std::string& path);

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
    // An empty path keeps nothing. Throws file_error.
    explicit kept_file(const std::string& path)
    {
        if (!path.empty())
            writer_.emplace(path);
    }

    template <class write_t>
    void write(write_t write_to)
    {
        if (!writer_)
            return;
        try {
            write_to(*writer_);
        } catch (const file_error& error) {
            problem_ = error.what();
            writer_.reset();
        }
    }

    void finish(run_result& result)
    {
        write([](writer_t& file) { file.finish(); });
        if (has_failed())
            result.problems.push_back(problem_);
    }

    bool has_failed() const { return !problem_.empty(); }

private:
    std::optional<writer_t> writer_;
    std::string problem_;
};

} // namespace receiver
