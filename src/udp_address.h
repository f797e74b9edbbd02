// The pair of addresses that a UDP engine works with: where it binds, and where
// it sends to or which group it joins. Used while the engine is set up.
#pragma once

#include <cerrno>
#include <cstdint>
#include <string>

#include <sys/socket.h>

#include "ip_resover.h"

namespace vesk {

class udp_address_t {
public:
    // Sender's rules, or with `bind_` the receiver's, which allow "*" as host and
    // as port. 0, or -1 with EINVAL and the fields as far as they got.
    // cppcheck-suppress constParameter ; the engines hand their own text on
    int32_t resolve(std::string& name, bool bind_)
    {
        std::string host;
        std::string port_text;
        if (details::split_endpoint(name, host, port_text) != 0)
            return -1;
        uint16_t port = 0;
        const bool any_port = bind_ && port_text == "*";
        if (!any_port && details::resolve_port(port_text, port) != 0)
            return -1;

        if (bind_ && host == "*")
            target_address_ = ip_addr_t::any(AF_INET);
        else
            target_address_.set_addr(host.c_str());
        target_address_.set_port(port);
        is_multicast_ = target_address_.is_multicast();

        bind_address_ = target_address_;
        if (is_multicast_ || !bind_) {
            bind_address_ = ip_addr_t::any(AF_INET);
            bind_address_.set_port(port);
        }
        if (bind_address_.family() != target_address_.family()) {
            errno = EINVAL;
            return -1;
        }
        return 0;
    }

    int32_t family() const { return bind_address_.family(); }
    bool is_mcast() const { return is_multicast_; }
    const ip_addr_t* bind_addr() const { return &bind_address_; }
    const ip_addr_t* target_addr() const { return &target_address_; }
    int32_t bind_if() const { return bind_interface_; }

private:
    ip_addr_t bind_address_{};
    ip_addr_t target_address_{};
    int32_t bind_interface_{-1}; // no interface is ever chosen by index
    bool is_multicast_{false};
};

} // namespace vesk
