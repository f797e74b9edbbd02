// A run over TCP: bytes, in messages only as far as the source tells them.
#pragma once

#include <cstdint>
#include <optional>

#include "measure.h"
#include "result.h"
#include "run_end.h"
#include "source.h"
#include "stream_verifier.h"
#include "tcp_input.h"
#include "transport.h"
#include "writer.h"

namespace receiver {

class tcp_transport : public transport {
public:
    // `source` may be null. It and the input must outlive the transport.
    tcp_transport(tcp_input& input, message_source* source, kept_file<data_writer> kept);

    int fd() const override { return input_.fd(); }
    taken take(measure& measured, const run_end& end) override;
    bool complete() override { return verifier_ && verifier_->complete(); }
    bool framed() const override { return verifier_.has_value(); }
    bool exhausted() const override { return verifier_ && verifier_->exhausted(); }
    uint64_t fault_count() const override;
    void finish(run_result& result, measure& measured, bool rest_is_due) override;
    bool file_failed() const override { return kept_.has_failed(); }

private:
    tcp_input& input_;
    std::optional<stream_verifier> verifier_;
    kept_file<data_writer> kept_;
    uint64_t epoch_ns_;      // makes stamps that no one can set back
    uint64_t last_stamp_{0}; // of the latest read, since the epoch
};

} // namespace receiver
