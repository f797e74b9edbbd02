// See socket.h.
#include "socket.h"

#include <algorithm>
#include <climits>

#include <arpa/inet.h>
#include <sys/socket.h>

namespace receiver {

sockaddr_in to_address(const std::string& ip, uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    (void)::inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
    return address;
}

uint64_t set_receive_buffer(int fd, uint64_t bytes)
{
    // The kernel doubles the number, and that has to fit as well.
    const int wished = static_cast<int>(std::min<uint64_t>(bytes, INT_MAX / 2));
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &wished, sizeof(wished)) != 0)
        (void)::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &wished, sizeof(wished));
    return receive_buffer(fd);
}

uint64_t receive_buffer(int fd)
{
    int granted = 0;
    socklen_t length = sizeof(granted);
    (void)::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &granted, &length);
    return static_cast<uint64_t>(granted) / 2; // the other half is for bookkeeping
}

} // namespace receiver
