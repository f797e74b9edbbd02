// What the engines' tests share: a clean start for the process-wide state that
// the engines work on, messages, and texts to compare.
#pragma once

#include <csignal>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/output_capture.h"
#include "tcp_engine.h"

namespace support {

class engine_fixture : public testing::Test {
protected:
    engine_fixture() { reset(); }
    ~engine_fixture() override
    {
        reset();
        (void)std::signal(SIGPIPE, before_);
    }

private:
    static void reset()
    {
        vesk::stats = vesk::replay_stats{};
        g_debug_mode = 0;
    }

    // A receiver that has gone raises it; the program ignores it as well.
    void (*const before_)(int) = std::signal(SIGPIPE, SIG_IGN);
};

inline vesk::data_t message(const std::string& bytes)
{
    auto msg = std::make_shared<vesk::dataBuffer>();
    msg->length = bytes.size();
    std::memcpy(msg->buf, bytes.data(), bytes.size());
    return msg;
}

// Bytes in which a shift, a swap or a gap shows.
inline std::string patterned(size_t length)
{
    std::string bytes(length, '\0');
    uint32_t state = 12345;
    for (char& byte : bytes) {
        state = state * 1103515245 + 12345;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

inline vesk::queue_ptr queue_of(size_t capacity)
{
    return std::make_shared<vesk::queue_ptr::element_type>(capacity);
}

// The whole pacing record in one line.
inline std::string pacing_record()
{
    const auto& s = vesk::stats;
    std::ostringstream text;
    text << "start " << s.start_time.tv_sec << "s " << s.start_time.tv_usec << "us, end "
         << s.end_time.tv_sec << "s " << s.end_time.tv_usec << "us, sent " << s.bytes_sent
         << ", nap " << s.nap.tv_sec << "s " << s.nap.tv_nsec << "ns, skip "
         << s.skip_length << ", first " << s.first_time << ", top " << s.top_speed;
    return text.str();
}

// The number that the next dump will bear; counting goes on from test to test.
inline unsigned long next_dump_number()
{
    const output_capture output;
    vesk::details::binary_output(nullptr, 0);
    return std::stoul(output.text().substr(std::strlen("seq: "))) + 1;
}

// A dump block with the given lines of byte groups, which end in line feeds.
inline std::string dump_block(
    unsigned long number, size_t length, const std::string& groups)
{
    return "seq: " + std::to_string(number) + "\ndata length: " + std::to_string(length) +
           "\n" + groups + "=============================\n";
}

} // namespace support
