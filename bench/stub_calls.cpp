// Preloaded into a sender: counts its messages and reads the clocks around them. The
// sending thread's system calls return at once, so that what is left of a message's cost
// is user-space time, or go to the kernel as ever. The clocks' readings go to a file and
// the process ends when enough has been sent. One thread sends; all but the constructor
// and the remembering of an interest runs there.
//
//   STUB_OUT        file that gets one line of JSON
//   STUB_MESSAGES   messages to count
//   STUB_WARMUP     messages before them, default 0
//   STUB_BURST      0, the default: the clocks run without a break. Otherwise at most
//                   this many messages are counted at a stretch, each stretch behind a
//                   pause in which the producer fills the queue. A stretch in which the
//                   queue ran empty nevertheless does not count.
//   STUB_PASS       1: the calls are passed on to the kernel; 0, the default: they are
//                   not
//   STUB_PROCESSOR  where the sending thread runs from its first message on
//
// The clocks start inside one send and stop inside another, so that as many whole
// turns of the loop lie between them as messages are counted. Without a warm-up they
// start in the first send, and one message less is counted. A longest_backlog below
// the size of the queue says that the producer has never waited for room.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The messages that bring the caches back after a pause. With a burst they have to
// fit into the sender's queue, which holds 1024.
enum : int { REWARM_MESSAGES = 64, LONGEST_BURST = 1024 - REWARM_MESSAGES };
enum : int { PAUSE_MS = 5 };

struct settings_t {
    const char* out;
    uint64_t warm_up;
    uint64_t messages;
    uint64_t burst;
    const char* processor;
    bool pass;
};

struct reading_t {
    int64_t poller;
    int64_t producer;
    int64_t wall;
    uint64_t sent;
    uint64_t empty_polls;
};

enum class phase_t { FIRST, WARM_UP, REWARM, COUNT };

// What every call touches, on a cache line that the producer has no part in.
struct alignas(64) counters_t {
    uint64_t sent;
    uint64_t next_mark; // the send that has more to do than to count
    uint64_t sent_at_poll;
    uint64_t empty_polls; // those that no message followed
    uint64_t sent_at_empty_poll;
    uint64_t longest_backlog; // messages without an empty poll between them
    int stubbed_epoll;
    epoll_event event;
};

settings_t settings;
clockid_t producer_clock;
int (*real_epoll_ctl)(int, int, int, epoll_event*);
int (*real_epoll_wait)(int, epoll_event*, int, int);
ssize_t (*real_send)(int, const void*, size_t, int);
ssize_t (*real_sendto)(int, const void*, size_t, int, const sockaddr*, socklen_t);

// The descriptor to be made writable for good. Written by the thread that sets the
// interest; the sender's queue orders that before the first send.
int armed_epoll = -1;
epoll_event armed_event;

counters_t counters = {0, 1, 0, 0, 0, 0, -1, {}};
phase_t phase = phase_t::FIRST;
int64_t first_send_ns;
reading_t begin;
reading_t total;

[[noreturn]] void fail(const char* what)
{
    std::perror(what);
    _exit(1);
}

[[noreturn]] void refuse(const char* text)
{
    std::fprintf(stderr, "stub_calls: %s\n", text);
    _exit(1);
}

int64_t now(clockid_t clock)
{
    timespec time;
    if (::clock_gettime(clock, &time) != 0)
        fail("clock_gettime");
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

void end_backlog()
{
    const uint64_t backlog = counters.sent - counters.sent_at_empty_poll;
    if (backlog > counters.longest_backlog)
        counters.longest_backlog = backlog;
    counters.sent_at_empty_poll = counters.sent;
}

// The poller's clock is the last to start and the first to stop, which keeps the
// other readings out of its time.
void start_clocks()
{
    begin.wall = now(CLOCK_MONOTONIC);
    begin.producer = now(producer_clock);
    begin.sent = counters.sent;
    begin.empty_polls = counters.empty_polls;
    counters.longest_backlog = 0;
    begin.poller = now(CLOCK_THREAD_CPUTIME_ID);
}

void stop_clocks()
{
    const int64_t poller = now(CLOCK_THREAD_CPUTIME_ID) - begin.poller;
    const int64_t producer = now(producer_clock) - begin.producer;
    const int64_t wall = now(CLOCK_MONOTONIC) - begin.wall;
    const uint64_t sent = counters.sent - begin.sent;
    const uint64_t empty = counters.empty_polls - begin.empty_polls;
    total.empty_polls += empty;
    end_backlog();
    if (settings.burst != 0 && empty != 0)
        return;
    total.poller += poller;
    total.producer += producer;
    total.wall += wall;
    total.sent += sent;
}

long resident_kb()
{
    std::FILE* statm = std::fopen("/proc/self/statm", "r");
    long pages = 0;
    if (statm == nullptr || std::fscanf(statm, "%*d %ld", &pages) != 1)
        fail("/proc/self/statm");
    (void)std::fclose(statm); // it was read only
    return pages * (::sysconf(_SC_PAGESIZE) / 1024);
}

[[noreturn]] void finish()
{
    std::FILE* out = std::fopen(settings.out, "w");
    if (out == nullptr)
        fail(settings.out);
    std::fprintf(
        out,
        R"({"messages": %lu, "poller_ns": %ld, "producer_ns": %ld, "first_send_ns": %ld, )"
        R"("resident_kb": %ld, "wall_ns": %ld, "empty_polls": %lu, "longest_backlog": %lu})"
        "\n",
        total.sent, total.poller, total.producer, first_send_ns, resident_kb(),
        total.wall, total.empty_polls, counters.longest_backlog);
    if (std::fclose(out) != 0)
        fail(settings.out);
    _exit(0);
}

void pin()
{
    if (settings.processor == nullptr)
        return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(std::strtoul(settings.processor, nullptr, 10), &set);
    if (::sched_setaffinity(0, sizeof(set), &set) != 0) // 0: this thread alone
        fail("sched_setaffinity");
}

void let_producer_fill()
{
    const timespec time{0, PAUSE_MS * 1000000L};
    (void)::nanosleep(&time, nullptr); // a signal that cuts it short ends the run anyway
}

void count_from_here()
{
    const uint64_t left = settings.burst == 0
                              ? settings.warm_up + settings.messages - counters.sent
                              : settings.messages - total.sent;
    const uint64_t most = settings.burst == 0 ? left : settings.burst;
    counters.next_mark = counters.sent + (left < most ? left : most);
    phase = phase_t::COUNT;
    start_clocks();
}

void refill()
{
    let_producer_fill();
    counters.next_mark = counters.sent + REWARM_MESSAGES;
    phase = phase_t::REWARM;
}

void after_warm_up()
{
    if (settings.burst == 0)
        count_from_here();
    else
        refill();
}

// From here on the poller only hears that its socket is writable. Not before: the
// sender has to hear of its receiver first.
void begin_stubbing()
{
    first_send_ns = now(CLOCK_MONOTONIC);
    pin();
    counters.event = epoll_event{EPOLLOUT, armed_event.data};
    counters.stubbed_epoll = armed_epoll;
    counters.next_mark = settings.warm_up;
    phase = phase_t::WARM_UP;
    if (settings.warm_up <= 1)
        after_warm_up();
}

[[gnu::noinline, gnu::cold]] void mark()
{
    switch (phase) {
    case phase_t::FIRST:
        begin_stubbing();
        break;
    case phase_t::WARM_UP:
        after_warm_up();
        break;
    case phase_t::REWARM:
        count_from_here();
        break;
    case phase_t::COUNT:
        stop_clocks();
        if (settings.burst == 0 || total.sent >= settings.messages)
            finish();
        refill();
        break;
    }
}

ssize_t count_message(ssize_t result, size_t length)
{
    if (__builtin_expect(result != static_cast<ssize_t>(length), 0))
        refuse("a message was not sent whole");
    if (__builtin_expect(++counters.sent == counters.next_mark, 0))
        mark();
    return result;
}

uint64_t number(const char* name)
{
    const char* text = std::getenv(name);
    return text == nullptr ? 0 : std::strtoull(text, nullptr, 10);
}

template <class function_t>
void find(function_t*& function, const char* name)
{
    function = reinterpret_cast<function_t*>(::dlsym(RTLD_NEXT, name));
    if (function == nullptr)
        refuse(name);
}

// On the process's main thread, which is the sender's producer.
[[gnu::constructor]] void prepare()
{
    settings = {std::getenv("STUB_OUT"),       number("STUB_WARMUP"),
                number("STUB_MESSAGES"),       number("STUB_BURST"),
                std::getenv("STUB_PROCESSOR"), number("STUB_PASS") != 0};
    if (settings.out == nullptr || settings.messages < 2)
        refuse("set STUB_OUT, and STUB_MESSAGES to 2 or more");
    if (settings.burst > LONGEST_BURST)
        refuse("STUB_BURST is more than the queue holds");
    find(real_epoll_ctl, "epoll_ctl");
    find(real_epoll_wait, "epoll_wait");
    find(real_send, "send");
    find(real_sendto, "sendto");
    if (::pthread_getcpuclockid(::pthread_self(), &producer_clock) != 0)
        refuse("the main thread has no clock");
}

} // namespace

extern "C" {

int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept
{
    if (operation != EPOLL_CTL_DEL && (event->events & EPOLLOUT) != 0) {
        armed_event = *event;
        armed_epoll = epoll;
    }
    return real_epoll_ctl(epoll, operation, fd, event);
}

int epoll_wait(int epoll, epoll_event* events, int most, int timeout)
{
    if (__builtin_expect(epoll != counters.stubbed_epoll, 0))
        return real_epoll_wait(epoll, events, most, timeout);
    if (counters.sent == counters.sent_at_poll) {
        ++counters.empty_polls;
        end_backlog();
    }
    counters.sent_at_poll = counters.sent;
    if (settings.pass)
        return real_epoll_wait(epoll, events, most, timeout);
    events[0] = counters.event;
    return 1;
}

ssize_t send(int fd, const void* data, size_t length, int flags)
{
    const ssize_t sent =
        settings.pass ? real_send(fd, data, length, flags) : static_cast<ssize_t>(length);
    return count_message(sent, length);
}

ssize_t sendto(
    int fd, const void* data, size_t length, int flags, const sockaddr* to,
    socklen_t to_length)
{
    const ssize_t sent = settings.pass
                             ? real_sendto(fd, data, length, flags, to, to_length)
                             : static_cast<ssize_t>(length);
    return count_message(sent, length);
}
}
