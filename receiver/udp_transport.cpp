// See udp_transport.h.
#include "udp_transport.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace receiver {

udp_transport::udp_transport(
    udp_input& input, uint16_t port, message_source* source, size_t window,
    kept_file<capture_writer> kept)
    : input_(input), port_(htons(port)), kept_(std::move(kept))
{
    kept_.begin();
    if (source != nullptr)
        verifier_.emplace(*source, window);
}

transport::taken udp_transport::take(measure& measured, const run_end& end)
{
    const size_t count = input_.receive();
    for (size_t i = 0; i < count; ++i) {
        const received_datagram& datagram = input_.at(i);
        measured.arrived(datagram.stamp_ns, datagram.payload.size());
        if (verifier_)
            verifier_->arrived(datagram.payload);
        kept_.write([&](capture_writer& file) { file.write(datagram, port_); });
        if (end.limit(measured.messages(), measured.bytes()))
            return taken::limit;
    }
    if (count == 0)
        return taken::nothing;
    return count < udp_input::BATCH ? taken::little : taken::data;
}

uint64_t udp_transport::fault_count() const
{
    return verifier_ ? verifier_->fault_count() : 0;
}

void udp_transport::finish(run_result& result, measure& /*measured*/, bool rest_is_due)
{
    if (verifier_)
        result.verified = verifier_->finish(rest_is_due);
    if (!input_.error().empty())
        result.problems.push_back(input_.error());
    kept_.finish(result);
    result.buffer_granted = input_.buffer_granted();
    result.own_drops = input_.own_drops();
}

} // namespace receiver
