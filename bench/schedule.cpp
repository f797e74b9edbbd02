// Sends datagrams of zeros by the plainest absolute schedule: message n at start +
// n intervals, by spinning on the clock or by sleeping to the instant. What a pacer
// can reach on this machine. One thread.
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr uint64_t NANOSECONDS_PER_SECOND = 1000000000;

struct plan {
    bool sleeping;
    sockaddr_in target;
    size_t length;
    uint64_t rate; // messages per second
    uint64_t seconds;
};

int checked(int rc, const char* what)
{
    if (rc == -1)
        throw std::system_error(errno, std::generic_category(), what);
    return rc;
}

sockaddr_in parse_target(const char* address, const std::string& port)
{
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(static_cast<uint16_t>(std::stoi(port)));
    if (::inet_pton(AF_INET, address, &target.sin_addr) != 1)
        throw std::runtime_error("not an address: " + std::string(address));
    return target;
}

uint64_t now()
{
    timespec time{};
    checked(::clock_gettime(CLOCK_MONOTONIC, &time), "clock_gettime");
    return static_cast<uint64_t>(time.tv_sec) * NANOSECONDS_PER_SECOND +
           static_cast<uint64_t>(time.tv_nsec);
}

void spin_until(uint64_t instant)
{
    while (now() < instant) {
    }
}

void sleep_until(uint64_t instant)
{
    const timespec time{
        static_cast<time_t>(instant / NANOSECONDS_PER_SECOND),
        static_cast<long>(instant % NANOSECONDS_PER_SECOND)};
    const int error = ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), "clock_nanosleep");
}

void send_all(const plan& p)
{
    const int fd = checked(::socket(AF_INET, SOCK_DGRAM, 0), "socket");
    const auto* target = reinterpret_cast<const sockaddr*>(&p.target);
    const std::vector<char> message(p.length);
    const uint64_t start = now();
    for (uint64_t number = 0; number < p.rate * p.seconds; ++number) {
        const uint64_t instant = start + number * NANOSECONDS_PER_SECOND / p.rate;
        if (p.sleeping)
            sleep_until(instant);
        else
            spin_until(instant);
        const ssize_t sent =
            ::sendto(fd, message.data(), p.length, 0, target, sizeof(p.target));
        checked(sent == -1 ? -1 : 0, "sendto");
    }
    ::close(fd); // what was sent is the kernel's already
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 7) {
        std::cerr << "usage: schedule busy|sleep ADDRESS PORT LENGTH RATE SECONDS\n";
        return EXIT_FAILURE;
    }
    try {
        // The kernel would otherwise let each sleep end up to 50 microseconds late.
        checked(::prctl(PR_SET_TIMERSLACK, 1), "PR_SET_TIMERSLACK");
        send_all(
            {std::string(argv[1]) == "sleep", parse_target(argv[2], argv[3]),
             std::stoul(argv[4]), std::stoul(argv[5]), std::stoul(argv[6])});
    } catch (const std::exception& error) {
        std::cerr << "schedule: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
