// What both programs make of a capture must be what libpcap and plain arithmetic say.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <pcap/pcap.h>

#include "common.h"

namespace fuzz {

// What a reader gave of one capture.
struct reading {
    enum class outcome { unopened, refused, filtered };

    outcome opened{outcome::unopened};
    bool broke_off{false};           // at a frame of impossible length
    std::vector<std::string> pieces; // messages, empty ones too
};

// The sender's reader, except that a filter's program does not stay behind: a run
// opens few captures, a fuzzing program as many as it can.
class capture_reader : public vesk::details::pcap_helper {
public:
    bool open(const std::string& path, const std::string& filter)
    {
        const bool filtered = pcap_helper::open(path, filter);
        ::pcap_freecode(&fcode_); // the open capture works with a copy
        fcode_ = {};
        return filtered;
    }
};

// The first word of a filter that names a transport; "" for none.
std::string transport_named(const std::string& filter);

// All of a capture by the sender's reader, which is left closed unless the filter was
// refused. The filter has to name a transport.
reading read_as_sender(
    capture_reader& reader, const std::string& path, const std::string& filter);

// Reads the capture in every way there is, with a filter that names its transport,
// and compares. Returns what they agree on.
reading check_capture(const std::string& path, const std::string& filter);

} // namespace fuzz
