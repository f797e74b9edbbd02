// A run over UDP: each datagram is a message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include <netinet/in.h>

#include "datagram_verifier.h"
#include "measure.h"
#include "result.h"
#include "run_end.h"
#include "source.h"
#include "transport.h"
#include "udp_input.h"
#include "writer.h"

namespace receiver {

class udp_transport : public transport {
public:
    // `source` may be null. It and the input must outlive the transport.
    udp_transport(
        udp_input& input, uint16_t port, message_source* source, size_t window,
        kept_file<capture_writer> kept);

    int fd() const override { return input_.fd(); }
    taken take(measure& measured, const run_end& end) override;
    bool complete() override { return verifier_ && verifier_->complete(); }
    bool framed() const override { return true; }
    bool exhausted() const override { return verifier_ && verifier_->exhausted(); }
    uint64_t fault_count() const override;
    void finish(run_result& result, measure& measured, bool rest_is_due) override;
    bool file_failed() const override { return kept_.has_failed(); }

private:
    udp_input& input_;
    in_port_t port_; // in network order
    std::optional<datagram_verifier> verifier_;
    kept_file<capture_writer> kept_;
};

} // namespace receiver
