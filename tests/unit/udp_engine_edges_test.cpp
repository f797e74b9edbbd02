// The UDP engine at the edges of its input: datagrams of a byte and of none.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support/call_seam.h"
#include "support/engine_fixture.h"
#include "support/output_capture.h"
#include "tcp_engine.h"

namespace udp_engine_edges_test {

namespace call = support::call;

class UdpEngineEdges : public support::engine_fixture {
protected:
    // What one event prints in debug mode when this many bytes arrive.
    static std::string dumped(ssize_t received)
    {
        vesk::udp_engine engine(false);
        const support::scoped_call<call::recvfrom> hook(
            [received](int, void* buffer, size_t, int, sockaddr*, socklen_t*) {
                static_cast<char*>(buffer)[0] = 'A';
                return received;
            });
        g_debug_mode = 1;
        const support::output_capture output;
        engine.in_event();
        return output.text();
    }
};

TEST_F(UdpEngineEdges, ADatagramOfOneByteIsDumped)
{
    const auto number = support::next_dump_number();
    EXPECT_EQ(dumped(1), support::dump_block(number, 1, "41 \n"));
}

TEST_F(UdpEngineEdges, ADatagramOfNoneAndAnErrorAreNotDumped)
{
    EXPECT_EQ(dumped(0), "");
    EXPECT_EQ(dumped(-1), "");
}

} // namespace udp_engine_edges_test
