// The parts of the sender's work one at a time, on one thread: reading without the
// sender around it, the message buffer, and the calls that stub_calls.cpp replaces.
// Prints the processor time per message in nanoseconds.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <pcap/pcap.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common.h"

namespace {

using vesk::data_t;
using vesk::dataBuffer;
using vesk::MAX_BUFFER_SIZE;

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "bare_reader: %s\n", what.c_str());
    std::exit(1);
}

[[noreturn]] void fail_errno(const std::string& what)
{
    fail(what + ": " + std::strerror(errno));
}

int64_t thread_ns()
{
    timespec time;
    if (::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time) != 0)
        fail_errno("clock_gettime");
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

uint64_t number(const char* text) { return std::strtoull(text, nullptr, 10); }

// Where one message after the other goes.
class buffer_ring {
public:
    explicit buffer_ring(size_t buffers) : buffers_(buffers) {}
    char* next() { return buffers_[at_++ % buffers_.size()].buf; }

private:
    std::vector<dataBuffer> buffers_;
    size_t at_{0};
};

uint64_t read_data(const char* file, buffer_ring& ring)
{
    const int fd = ::open(file, O_RDONLY);
    if (fd == -1)
        fail_errno(file);
    uint64_t messages = 0;
    ssize_t count = 0;
    while ((count = ::read(fd, ring.next(), MAX_BUFFER_SIZE)) > 0)
        ++messages;
    if (count != 0)
        fail_errno(file);
    (void)::close(fd); // it was read only
    return messages;
}

pcap_t* open_capture(const char* file, const char* filter)
{
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* capture = ::pcap_open_offline(file, error);
    if (capture == nullptr)
        fail(error);
    bpf_program program;
    if (::pcap_compile(capture, &program, filter, 1, 0) != 0 ||
        ::pcap_setfilter(capture, &program) != 0)
        fail(::pcap_geterr(capture));
    ::pcap_freecode(&program);
    return capture;
}

uint64_t read_capture(const char* file, const char* filter, buffer_ring& ring)
{
    const auto type = vesk::details::extract_protocol_type(filter);
    pcap_t* capture = open_capture(file, filter);
    uint64_t messages = 0;
    pcap_pkthdr header;
    while (const u_char* frame = ::pcap_next(capture, &header)) {
        uint32_t offset = 0;
        if (!vesk::details::payload_offset(frame, header.caplen, type, offset))
            fail(std::string(file) + " has a frame that is too short");
        const size_t length = header.caplen - offset;
        std::memcpy(
            ring.next(), frame + offset, std::min<size_t>(length, MAX_BUFFER_SIZE));
        ++messages;
    }
    ::pcap_close(capture);
    return messages;
}

// Nanoseconds per message of `pass()`, which returns how many it had; the first pass
// fills the caches and is not counted.
template <class pass_t>
double time_passes(uint64_t passes, pass_t pass)
{
    (void)pass();
    const int64_t start = thread_ns();
    uint64_t messages = 0;
    for (uint64_t i = 0; i < passes; ++i)
        messages += pass();
    const int64_t spent = thread_ns() - start;
    return static_cast<double>(spent) / static_cast<double>(messages);
}

// Each turn drops the oldest message before it makes one.
uint64_t make_messages(std::vector<data_t>& alive)
{
    for (data_t& message : alive) {
        message.reset();
        message = std::make_shared<dataBuffer>();
    }
    return alive.size();
}

// The same in as many bytes: the message shares its memory with the reference counts.
uint64_t take_memory(std::vector<void*>& alive)
{
    constexpr size_t COUNTS = 16; // their table's address and two 32-bit numbers
    for (void*& memory : alive) {
        std::free(memory);
        memory = std::malloc(COUNTS + sizeof(dataBuffer));
        if (memory == nullptr)
            fail("out of memory");
    }
    return alive.size();
}

// The sender's calls and nothing else; the preloaded library ends the process. It must
// be there: an event counter, though writable, is no socket and cannot send.
[[noreturn]] void call()
{
    const int fd = ::eventfd(0, 0);
    const int epoll = ::epoll_create1(0);
    epoll_event event{EPOLLOUT, {}};
    if (::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0)
        fail_errno("epoll");
    for (;;) {
        if (::send(fd, &event, sizeof(event), 0) == -1)
            fail_errno("the calls are not replaced: send");
        (void)::epoll_wait(epoll, &event, 1, 0); // replaced too
    }
}

double run(const std::vector<std::string>& words)
{
    const std::string what = words[1] + " " + std::to_string(words.size() - 2);
    const auto argument = [&](size_t i) {
        return i < words.size() ? words[i].c_str() : "";
    };
    const uint64_t buffers = std::max<uint64_t>(number(words.back().c_str()), 1);
    const uint64_t count = number(argument(words.size() - 2));
    if (what == "read 3")
        return time_passes(count, [&, ring = buffer_ring(buffers)]() mutable {
            return read_data(argument(2), ring);
        });
    if (what == "pcap 4")
        return time_passes(count, [&, ring = buffer_ring(buffers)]() mutable {
            return read_capture(argument(2), argument(3), ring);
        });
    if (what == "buffer 2") {
        std::vector<data_t> alive(buffers);
        return time_passes(count / buffers, [&] { return make_messages(alive); });
    }
    if (what == "memory 2") {
        std::vector<void*> alive(buffers);
        return time_passes(count / buffers, [&] { return take_memory(alive); });
    }
    if (what == "calls 0")
        call();
    fail("usage: read FILE PASSES BUFFERS | pcap FILE FILTER PASSES BUFFERS |"
         " buffer COUNT BUFFERS | memory COUNT BUFFERS | calls");
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> words(argv, argv + argc);
    words.resize(std::max<size_t>(words.size(), 2)); // an empty command is unknown too
    std::printf("%.3f\n", run(words));
}
