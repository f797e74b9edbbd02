// Receives datagrams on a loopback port for the end-to-end tests: prints the port,
// then each datagram behind its length (four bytes, little-endian), until standard
// input ends. One thread; a large receive buffer takes what the reader is late for.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t BATCH = 64;
constexpr size_t LARGEST_DATAGRAM = 65536;

[[noreturn]] void fail(const char* what)
{
    std::perror(what);
    std::exit(1);
}

int open_receiver(int buffer_size)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    // The forced form passes the system's limit, where it is allowed.
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer_size, sizeof(buffer_size)) !=
        0)
        (void)::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer_size, sizeof(buffer_size));

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(fd, generic, length) != 0 || ::getsockname(fd, generic, &length) != 0)
        fail("udp_sink");
    std::printf("%d\n", ntohs(address.sin_port));
    std::fflush(stdout);
    return fd;
}

class batch {
public:
    batch() : memory_(BATCH * LARGEST_DATAGRAM)
    {
        for (size_t i = 0; i < BATCH; ++i) {
            parts_[i] = {memory_.data() + i * LARGEST_DATAGRAM, LARGEST_DATAGRAM};
            messages_[i].msg_hdr.msg_iov = &parts_[i];
            messages_[i].msg_hdr.msg_iovlen = 1;
        }
    }

    // Passes on what has arrived; false when nothing had.
    bool forward(int fd)
    {
        const int count = ::recvmmsg(fd, messages_.data(), BATCH, MSG_DONTWAIT, nullptr);
        std::string out;
        for (int i = 0; i < count; ++i) {
            const auto at = static_cast<size_t>(i);
            const uint32_t length = messages_[at].msg_len;
            for (unsigned shift = 0; shift < 32; shift += 8)
                out += static_cast<char>(length >> shift & 0xFFU);
            out.append(static_cast<const char*>(parts_[at].iov_base), length);
        }
        if (std::fwrite(out.data(), 1, out.size(), stdout) != out.size())
            fail("udp_sink");
        return count > 0;
    }

private:
    std::vector<char> memory_;
    std::array<iovec, BATCH> parts_{};
    std::array<mmsghdr, BATCH> messages_{};
};

} // namespace

int main(int argc, char** argv)
{
    const int fd = open_receiver(argc > 1 ? std::atoi(argv[1]) : 256 * 1024 * 1024);
    batch datagrams;
    std::array<pollfd, 2> sources{pollfd{fd, POLLIN, 0}, pollfd{STDIN_FILENO, POLLIN, 0}};
    while (sources[1].revents == 0) {
        (void)::poll(sources.data(), sources.size(), -1); // revents tell
        while (datagrams.forward(fd)) {
        }
        std::fflush(stdout);
    }
    return 0;
}
