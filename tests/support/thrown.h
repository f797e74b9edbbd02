// What the sender's exception says.
#pragma once

#include <string>

#include "common.h"

namespace support {

template <class action_t>
std::string text_thrown_by(action_t action)
{
    try {
        action();
    } catch (const vesk::details::vesk_ex& error) {
        return error.what();
    }
    return "(nothing thrown)";
}

} // namespace support
