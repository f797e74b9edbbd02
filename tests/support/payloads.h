// What a capture gives.
#pragma once

#include <cstddef>
#include <string>

#include "common.h"

namespace support {

// All payloads that are still to come, in one text.
inline std::string payloads_of(vesk::details::pcap_helper& reader)
{
    std::string payloads;
    char buffer[vesk::MAX_BUFFER_SIZE];
    size_t length = 0;
    while (reader.read(buffer, length))
        payloads.append(buffer, length);
    return payloads;
}

} // namespace support
