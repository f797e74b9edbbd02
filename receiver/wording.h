// What a run found out, in words: the sentences that terminal and page share. They
// depend on the result alone.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "result.h"

namespace receiver {

// How a verdict sounds; the terminal and the page colour it by this.
enum class mood {
    good,
    plain, // nothing was compared, so that nothing is proven
    doubtful,
    bad
};
mood mood_of(const run_result& run);

// Whether a run shows no fault merely because there was no source to compare with.
bool not_compared(const run_result& run);

// "100,000 messages, 50,000,000 bytes".
std::string amount_text(uint64_t messages, std::string_view unit, uint64_t bytes);
// The same for what arrived; where nobody knows the messages they are reads.
std::string received_text(const run_result& run);

// One sentence that says how the run went.
std::string verdict_text(const run_result& run);

// The problems that the verdict does not tell already.
std::span<const std::string> further_problems(const run_result& run);

// "udp 239.1.1.1:5000 on eth0".
std::string endpoint_text(const run_result& run);

// How much of the source arrived as it should; or that nothing was compared.
std::string comparison_text(const run_result& run);

// "399.9 Mbps, wanted 400 Mbps, error -0.02 % (tolerance 0.5 %)".
std::string rate_line(const run_result& run);

// What was granted of the wished receive buffer, and what was dropped for want of it.
std::string buffer_text(const run_result& run);
// What to do about a small buffer or own drops; empty when there is no need.
std::string advice_text(const run_result& run);

// Why the run ended, as a sentence's part.
std::string end_text(const run_result& run);

// "message 17", "messages 17 to 19", "offset 12,345".
std::string fault_place(const run_result& run, const fault& found);
// "lost", "altered from its byte 12 on (datagram 16)"; begins with the number of
// bytes over TCP. The kind's word is in it.
std::string fault_text(const run_result& run, const fault& found);

} // namespace receiver
