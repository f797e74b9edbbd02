// Tells the fuzzer what libpcap made of an input. The library is not built for the
// fuzzer, so that none of its branches count as reached by themselves.
#pragma once

#include <cstdint>
#include <string_view>

namespace fuzz {

// Counts as an edge of its own for each value, as far as there is room.
void note_outcome(uint64_t value);

// The same for the letters that a text starts with.
void note_outcome(std::string_view text);

} // namespace fuzz
