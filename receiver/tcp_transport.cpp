// See tcp_transport.h.
#include "tcp_transport.h"

#include <ctime>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "clock.h"
#include "socket.h"

namespace receiver {

tcp_transport::tcp_transport(
    tcp_input& input, message_source* source, kept_file<data_writer> kept)
    : input_(input), kept_(std::move(kept)),
      epoch_ns_(read_clock(CLOCK_REALTIME) - now_ns())
{
    kept_.begin();
    if (source != nullptr)
        verifier_.emplace(*source);
}

transport::taken tcp_transport::take(measure& measured, const run_end& end)
{
    switch (input_.receive(end.bytes_left(measured.bytes()))) {
    case tcp_input::state::closed:
        return taken::closed;
    case tcp_input::state::nothing:
        return taken::nothing;
    case tcp_input::state::data:
        break;
    }
    const uint64_t now = epoch_ns_ + now_ns();
    last_stamp_ = now;
    const size_t fresh = input_.fresh();
    kept_.write([&](data_writer& file) { file.write(input_.recent().last(fresh)); });
    if (verifier_) {
        measured.bytes_arrived(now, fresh);
        for (const uint32_t size : verifier_->arrived(input_.recent(), fresh))
            measured.message_complete(now, size);
    } else {
        measured.arrived(now, fresh);
    }
    if (end.limit(measured.messages(), measured.bytes()))
        return taken::limit;
    return taken::data;
}

uint64_t tcp_transport::fault_count() const
{
    return verifier_ ? verifier_->fault_count() : 0;
}

void tcp_transport::finish(run_result& result, measure& measured, bool rest_is_due)
{
    if (verifier_) {
        result.verified = verifier_->finish(rest_is_due);
        for (const uint32_t size : verifier_->completed())
            measured.message_complete(last_stamp_, size);
    }
    if (!input_.error().empty())
        result.problems.push_back(input_.error());
    kept_.finish(result);
    result.buffer_granted = receive_buffer(input_.fd());
}

} // namespace receiver
