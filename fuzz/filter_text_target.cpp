// Arbitrary text as a capture filter, tried on a capture of a few frames of each kind.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "capture_checks.h"
#include "caught_streams.h"
#include "check.h"
#include "memory_file.h"
#include "support/capture_builder.h"

namespace {

using fuzz::require;

// libpcap's time for longer ones grows without telling more.
constexpr size_t LONGEST_FILTER = 400;

std::string sample_capture()
{
    support::frame_parts parts;
    parts.payload = "payload";
    support::frame_parts tagged = parts;
    tagged.vlan = true;
    support::frame_parts with_options = parts;
    with_options.ip_options = std::string(8, '\x01');
    with_options.tcp_options = std::string(12, '\x01');
    return support::capture_bytes(
        {support::udp_frame(parts), support::tcp_frame(parts), support::udp_frame(tagged),
         support::tcp_frame(tagged), support::udp_frame(with_options),
         support::tcp_frame(with_options), support::udp_ipv6_frame(parts),
         support::make_frame(support::ethernet_header(0x0806), std::string(28, '\0'))});
}

// Such a filter is an error before the capture is looked at.
void check_refusal(const std::string& path, const std::string& filter)
{
    fuzz::caught_streams streams;
    fuzz::capture_reader reader;
    std::string words;
    try {
        (void)reader.open(path, filter);
    } catch (const vesk::details::vesk_ex& error) {
        words = error.what();
    }
    require(
        words == (filter.empty() ? "filter condition error!"
                                 : "Please specify the protocol type: tcp or udp!"),
        "a filter without a transport is an error");
    require(streams.out().empty() && streams.err().empty(), "nothing has been opened");

    const fuzz::reading after = fuzz::read_as_sender(reader, path, "udp");
    require(
        after.opened == fuzz::reading::outcome::filtered && after.pieces.size() == 3,
        "the reader can still be used");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static fuzz::memory_file file;
    static const bool written = (file.write(sample_capture()), true);
    require(written, "the capture is there");
    if (size > LONGEST_FILTER)
        return 0;
    const std::string filter(reinterpret_cast<const char*>(data), size);
    if (fuzz::transport_named(filter).empty())
        check_refusal(file.path(), filter);
    else
        (void)fuzz::check_capture(file.path(), filter); // checks for itself
    return 0;
}
