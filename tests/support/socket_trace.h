// Records how sockets are set up and taken down, one line of words per call, and
// makes the calls for real unless the test asked for a failure.
#pragma once

#include <cerrno>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include "support/call_seam.h"

namespace support {

inline std::string hex(const void* data, size_t length)
{
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        char digits[3];
        std::snprintf(
            digits, sizeof digits, "%02x",
            unsigned{static_cast<const unsigned char*>(data)[i]});
        text += digits;
    }
    return text;
}

// The lines:
//   socket stream|dgram tcp|udp    cloexec             get-flags      set-flags <value>
//   option <name> <bytes in hex>   bind <host>:<port>  listen <backlog>
//   add <interest>                 change <interest>   remove         close
// An interest is "none", "in", "out" or "in+out".
class socket_trace {
public:
    // From now on, calls whose line starts like this fail with `error`.
    void fail(std::string start, int error)
    {
        failures_.emplace_back(std::move(start), error);
    }

    // Calls whose line starts like this succeed without being made.
    void pretend(std::string start) { pretended_.insert(std::move(start)); }

    std::vector<std::string> lines;

private:
    // Notes the line; -1 or 0 in place of the call, or what the call returns.
    template <class Call>
    int run(const std::string& line, Call make)
    {
        lines.push_back(line);
        for (const auto& [start, error] : failures_) {
            if (line.rfind(start, 0) == 0) {
                errno = error;
                return -1;
            }
        }
        for (const auto& start : pretended_) {
            if (line.rfind(start, 0) == 0)
                return 0;
        }
        return make();
    }

    static std::string name_of(int level, int option)
    {
        static const std::map<std::pair<int, int>, std::string> NAMES = {
            {{SOL_SOCKET, SO_REUSEADDR}, "SO_REUSEADDR"},
            {{SOL_SOCKET, SO_REUSEPORT}, "SO_REUSEPORT"},
            {{SOL_SOCKET, SO_BINDTODEVICE}, "SO_BINDTODEVICE"},
            {{IPPROTO_IP, IP_ADD_MEMBERSHIP}, "IP_ADD_MEMBERSHIP"},
            {{IPPROTO_IP, IP_MULTICAST_LOOP}, "IP_MULTICAST_LOOP"},
            {{IPPROTO_IP, IP_MULTICAST_TTL}, "IP_MULTICAST_TTL"},
            {{IPPROTO_IP, IP_MULTICAST_IF}, "IP_MULTICAST_IF"},
            {{IPPROTO_TCP, TCP_NODELAY}, "TCP_NODELAY"},
        };
        const auto found = NAMES.find({level, option});
        return found != NAMES.end()
                   ? found->second
                   : std::to_string(level) + "/" + std::to_string(option);
    }

    static std::string endpoint(const sockaddr* address, socklen_t length)
    {
        if (length != sizeof(sockaddr_in) || address->sa_family != AF_INET)
            return "?";
        const auto* ip = reinterpret_cast<const sockaddr_in*>(address);
        char host[INET_ADDRSTRLEN];
        ::inet_ntop(AF_INET, &ip->sin_addr, host, sizeof host);
        return std::string(host) + ":" + std::to_string(ntohs(ip->sin_port));
    }

    static std::string interest(uint32_t events)
    {
        switch (events) {
        case 0:
            return "none";
        case EPOLLIN:
            return "in";
        case EPOLLOUT:
            return "out";
        case EPOLLIN | EPOLLOUT:
            return "in+out";
        default:
            return std::to_string(events);
        }
    }

    static std::string control_line(int operation, const epoll_event* event)
    {
        switch (operation) {
        case EPOLL_CTL_ADD:
            return "add " + interest(event->events);
        case EPOLL_CTL_MOD:
            return "change " + interest(event->events);
        default:
            return "remove";
        }
    }

    static std::string fcntl_line(int command, long argument)
    {
        if (command == F_SETFD && static_cast<int>(argument) == FD_CLOEXEC)
            return "cloexec";
        if (command == F_GETFL)
            return "get-flags";
        if (command == F_SETFL)
            return "set-flags " + std::to_string(static_cast<int>(argument));
        return "fcntl " + std::to_string(command);
    }

    static std::string socket_line(int domain, int kind, int protocol)
    {
        if (domain == AF_INET && kind == SOCK_STREAM && protocol == IPPROTO_TCP)
            return "socket stream tcp";
        if (domain == AF_INET && kind == SOCK_DGRAM && protocol == IPPROTO_UDP)
            return "socket dgram udp";
        return "socket " + std::to_string(domain) + " " + std::to_string(kind) + " " +
               std::to_string(protocol);
    }

    std::vector<std::pair<std::string, int>> failures_;
    std::set<std::string> pretended_;

    scoped_call<call::socket> socket_{[this](int domain, int kind, int protocol) {
        return run(socket_line(domain, kind, protocol), [&] {
            return real<call::socket>(domain, kind, protocol);
        });
    }};
    scoped_call<call::fcntl> fcntl_{[this](int fd, int command, long argument) {
        return run(fcntl_line(command, argument), [&] {
            return real<call::fcntl>(fd, command, argument);
        });
    }};
    scoped_call<call::setsockopt> setsockopt_{
        [this](int fd, int level, int option, const void* value, socklen_t length) {
            return run(
                "option " + name_of(level, option) + " " + hex(value, length),
                [&] { return real<call::setsockopt>(fd, level, option, value, length); });
        }};
    scoped_call<call::bind> bind_{
        [this](int fd, const sockaddr* address, socklen_t length) {
            return run("bind " + endpoint(address, length), [&] {
                return real<call::bind>(fd, address, length);
            });
        }};
    scoped_call<call::listen> listen_{[this](int fd, int backlog) {
        return run("listen " + std::to_string(backlog), [&] {
            return real<call::listen>(fd, backlog);
        });
    }};
    scoped_call<call::epoll_ctl> control_{
        [this](int epoll_fd, int operation, int fd, epoll_event* event) {
            return run(control_line(operation, event), [&] {
                return real<call::epoll_ctl>(epoll_fd, operation, fd, event);
            });
        }};
    scoped_call<call::close> close_{[this](int fd) {
        return run("close", [&] {
            const int rc = real<call::close>(fd);
            errno = EIO; // a close may leave any errno behind
            return rc;
        });
    }};
};

} // namespace support
