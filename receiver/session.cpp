// See session.h.
#include "session.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <poll.h>

#include "clock.h"
#include "measure.h"
#include "run_end.h"
#include "tcp_input.h"
#include "tcp_transport.h"
#include "transport.h"
#include "udp_input.h"
#include "udp_transport.h"
#include "verdict.h"
#include "writer.h"

namespace receiver {

namespace {

constexpr uint64_t NS_PER_MS = 1000000;
constexpr uint64_t UDP_RECEIVE_BUFFER = uint64_t{64} << 20U;
constexpr uint64_t NAP_BUFFER = uint64_t{4} << 20U;
constexpr uint64_t LONGEST_WAIT_NS = 100 * NS_PER_MS;

end_limits limits_of(const options& options)
{
    end_limits limits;
    limits.settle_ns = to_ns(options.settle_s);
    limits.idle_ns = to_ns(options.idle_s);
    if (options.duration_s)
        limits.duration_ns = to_ns(*options.duration_s);
    limits.messages = options.messages;
    limits.bytes = options.bytes;
    return limits;
}

void wait_readable(int fd, uint64_t ns)
{
    pollfd waiting{fd, POLLIN, 0};
    const timespec time{
        static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
    (void)::ppoll(&waiting, 1, &time, nullptr); // the next read tells
}

// The loop, apart from its transport.
class session {
public:
    session(
        const options& options, message_source* source, transport& transport,
        const std::function<bool()>& stopped, progress_line& progress)
        : source_(source), transport_(transport), stopped_(stopped), progress_(progress),
          start_ns_(now_ns()), end_(limits_of(options), start_ns_)
    {}

    // Until the run is over; why.
    end_reason run(uint64_t nap_ns)
    {
        for (;;) {
            const transport::taken taken = transport_.take(measured_, end_);
            const uint64_t now = now_ns();
            if (const auto reason = after(taken, now))
                return *reason;
            if (progress_.due(now))
                progress_.draw(now, state(now));
            if (taken == transport::taken::nothing)
                wait_readable(transport_.fd(), wait_ns(now));
            else if (taken == transport::taken::little && nap_ns != 0)
                nap(nap_ns);
        }
    }

    measure& measured() { return measured_; }

private:
    std::optional<end_reason> after(transport::taken taken, uint64_t now)
    {
        if (taken == transport::taken::limit)
            return end_.limit(measured_.messages(), measured_.bytes());
        if (taken == transport::taken::closed)
            return transport_.complete() ? end_reason::complete : end_reason::closed;
        if (taken != transport::taken::nothing)
            end_.arrived(now);
        end_.set_complete(now, transport_.complete());
        end_.set_exhausted(now, transport_.exhausted());
        if (stopped_())
            return end_reason::signal;
        return end_.check(now);
    }

    uint64_t wait_ns(uint64_t now) const
    {
        const uint64_t next = end_.next_check_ns();
        return std::clamp<uint64_t>(next > now ? next - now : 0, 1, LONGEST_WAIT_NS);
    }

    // Lets datagrams come together, whose stamps are the kernel's: one wake-up for
    // many costs less and leaves more of the machine to the sender.
    static void nap(uint64_t ns)
    {
        const timespec time{0, static_cast<long>(ns)};
        (void)::nanosleep(&time, nullptr); // a signal may cut it short
    }

    progress_state state(uint64_t now) const
    {
        progress_state state;
        state.messages = measured_.messages();
        state.bytes = measured_.bytes();
        state.rate_bps = measured_.rate_bps();
        state.faults = transport_.fault_count();
        if (source_ != nullptr)
            state.fraction = source_->fraction();
        state.elapsed_s = static_cast<double>(now - start_ns_) / 1e9;
        return state;
    }

    message_source* source_;
    transport& transport_;
    const std::function<bool()>& stopped_;
    progress_line& progress_;
    uint64_t start_ns_;
    run_end end_;
    measure measured_;
};

void add_measurement(run_result& result, const measure& measured, bool framed)
{
    result.measured = measured.result();
    result.measured.framed = framed;
    if (result.wanted_bps && result.measured.rate_bps > 0)
        result.rate_error_percent =
            rate_error_percent(result.measured.rate_bps, *result.wanted_bps);
}

run_result run_over(
    const options& options, message_source* source, transport& transport,
    const std::function<bool()>& stopped, progress_line& progress, uint64_t nap_ns)
{
    run_result result = blank_result(options);
    session running(options, source, transport, stopped, progress);
    result.reason = running.run(nap_ns);
    progress.finish();

    circumstances known;
    const bool source_ends = source != nullptr && options.source.passes != 0;
    const bool limited = options.messages || options.bytes;
    // Whoever compares with an endless replay wants it to go on.
    const bool broken_off = source != nullptr && result.reason == end_reason::closed;
    known.more_was_expected = source_ends || limited || broken_off;
    known.total_arrived = transport.complete() || result.reason == end_reason::messages ||
                          result.reason == end_reason::bytes;
    transport.finish(
        result, running.measured(),
        result.reason == end_reason::idle && source_ends && !limited);
    add_measurement(result, running.measured(), transport.framed());
    known.file_failed = transport.file_failed() || !result.verified.source_error.empty();
    if (!result.verified.source_error.empty()) {
        result.problems.push_back(result.verified.source_error);
        if (result.reason == end_reason::complete)
            result.reason = end_reason::failed; // it was not everything
    }
    result.status = judge(result, known);
    return result;
}

} // namespace

run_result blank_result(const options& options)
{
    run_result result;
    result.command = options.command;
    result.protocol = options.tcp ? "tcp" : "udp";
    result.address = options.ip + ":" + std::to_string(options.port);
    result.device = options.device;
    result.source = options.source.path;
    result.tolerance_percent = options.tolerance_percent;
    if (options.wanted_bps != 0)
        result.wanted_bps = static_cast<double>(options.wanted_bps);
    result.buffer_wished =
        options.receive_buffer.value_or(options.tcp ? 0 : UDP_RECEIVE_BUFFER);
    return result;
}

run_result receive_replay(
    const options& options, message_source* source, const std::function<bool()>& stopped,
    progress_line& progress)
{
    if (!options.tcp) {
        kept_file<capture_writer> kept(options.write);
        udp_input input(
            options.ip, options.port, options.device,
            options.receive_buffer.value_or(UDP_RECEIVE_BUFFER));
        udp_transport transport(
            input, options.port, source, options.window, std::move(kept));
        // A small buffer cannot wait that long.
        const uint64_t nap_ns = input.buffer_granted() >= NAP_BUFFER ? NS_PER_MS / 2 : 0;
        return run_over(options, source, transport, stopped, progress, nap_ns);
    }
    // The file comes first: connecting takes the place of an earlier receiver.
    kept_file<data_writer> kept(options.write);
    tcp_input input(
        options.ip, options.port, options.connect_timeout_s,
        options.receive_buffer.value_or(0), stopped);
    if (!input.is_connected()) {
        run_result result = blank_result(options);
        result.reason = end_reason::signal;
        result.status = exit_status::early;
        return result;
    }
    tcp_transport transport(input, source, std::move(kept));
    return run_over(options, source, transport, stopped, progress, 0);
}

} // namespace receiver
