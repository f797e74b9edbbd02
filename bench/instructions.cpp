// Walks one path of the sender under callgrind, which counts the instructions between
// two marks. Nothing here depends on time: the queue is filled while nobody takes from
// it, and emptied while nobody fills it.
// Usage: instructions PATH   prints how many messages were counted
//        instructions        prints all paths, after a line on what counts depend on
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <utility>

#include <gnu/libc-version.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include "sockets.h"
#include "support/capture_builder.h"
#include "support/scratch_dir.h"
#include "tcp_replay.h"

namespace {

#ifdef __clang__
constexpr const char* COMPILER = __VERSION__; // names itself
#else
constexpr const char* COMPILER = "g++ " __VERSION__;
#endif

constexpr int WARM_UP = 200; // the first calls also resolve symbols and fill caches
constexpr int COUNTED = 800;
constexpr size_t POLLED_SIZE = 64;

// A loopback socket that is bound and takes what comes.
class peer {
public:
    explicit peer(int type) : fd_(bench::checked(::socket(AF_INET, type, 0), "socket")) {}
    ~peer() { ::close(fd_); }
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;

    int fd() const { return fd_; }
    uint16_t port() const { return port_; }
    std::string name() const { return bench::endpoint(port_); }
    void connect_to(uint16_t port)
    {
        const sockaddr_in address = bench::loopback(port);
        bench::checked(
            ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
            "connect");
    }

private:
    int fd_;
    uint16_t port_{bench::bind_anywhere(fd_)};
};

vesk::data_t make_message(size_t size)
{
    auto message = std::make_shared<vesk::dataBuffer>();
    message->length = size;
    return message;
}

// An engine that meets its messages only once all of them are queued, and marks the
// poller's work between two of them: the loop, the wait's user-space part, the dispatch
// and the sending.
template <class engine_t>
class counted_engine : public engine_t {
public:
    using engine_t::engine_t;

    void out_event() override
    {
        if (calls_ == 0) {
            ready_.release();
            filled_.acquire();
        }
        if (calls_ == WARM_UP || calls_ == WARM_UP + COUNTED)
            CALLGRIND_TOGGLE_COLLECT;
        if (calls_ == WARM_UP + COUNTED)
            done_.release();
        ++calls_;
        engine_t::out_event();
    }

    // Main thread: fills the queue and returns when all of it has been sent.
    void run()
    {
        ready_.acquire();
        for (int i = 0; i < WARM_UP + COUNTED; ++i) {
            if (this->sendto(make_message(POLLED_SIZE)) != 0)
                throw std::runtime_error("the queue is too small");
        }
        filled_.release();
        done_.acquire();
    }

private:
    std::binary_semaphore ready_{0};
    std::binary_semaphore filled_{0};
    std::binary_semaphore done_{0};
    int calls_{0};
};

// A message every 10 ms. The clock moves on by one with each reading, so that each
// message waits for several.
constexpr uint64_t PACED_SPEED = POLLED_SIZE * 8 * 100;

int poll_udp(uint64_t speed)
{
    const peer receiver(SOCK_DGRAM);
    std::string address = receiver.name();
    const auto poller = std::make_shared<vesk::epoll_t>();
    counted_engine<vesk::udp_engine> engine(poller, true);
    engine.set_speed(speed);
    if (engine.set_local_address(address) != 0 || poller->start_poller("poller") != 0)
        throw std::runtime_error("no sender");
    engine.run();
    poller->stop_poller();
    return COUNTED;
}

int poll_tcp()
{
    const uint16_t port = peer(SOCK_STREAM).port(); // free from here on
    std::string address = bench::endpoint(port);
    const auto poller = std::make_shared<vesk::epoll_t>();
    const int wakeup = ::eventfd(0, EFD_NONBLOCK);
    counted_engine<vesk::tcp_engine> engine(poller, wakeup);
    if (engine.set_local_address(address) != 0 || poller->start_poller("poller") != 0)
        throw std::runtime_error("no sender");
    peer receiver(SOCK_STREAM);
    receiver.connect_to(port);
    engine.run();
    poller->stop_poller();
    ::close(wakeup);
    return COUNTED;
}

// Opens up the way back of a message.
struct giving_engine : vesk::engine_base {
    static void give(vesk::engine_base& engine, vesk::data_t message)
    {
        (engine.*(&giving_engine::give_back))(std::move(message));
    }
};

// A replay whose poller thread has ended. One thread fills the queue and empties it, so
// that nothing depends on chance: a pass that is counted frees what the one before it
// has queued, as in a run.
template <class replay_t>
class lone_replay : public replay_t {
public:
    template <class... args_t>
    explicit lone_replay(args_t&&... args) : replay_t(std::forward<args_t>(args)...)
    {
        this->poller_->stop_poller();
    }

    // Runs `pass` twice and counts the second one: the messages it has queued.
    template <class pass_t>
    int count(pass_t pass)
    {
        pass();
        (void)drain();
        CALLGRIND_TOGGLE_COLLECT;
        pass();
        CALLGRIND_TOGGLE_COLLECT;
        return drain();
    }

private:
    // As if all were sent.
    int drain()
    {
        int messages = 0;
        for (vesk::data_t message; this->engine_->pull_msg_from_pipe(message) == 0;) {
            giving_engine::give(*this->engine_, std::move(message));
            ++messages;
        }
        return messages;
    }
};

struct file_producer : lone_replay<vesk::filereplay> {
    using lone_replay::lone_replay;
    int read()
    {
        return count([this] { replay_files(); });
    }
    int preloaded()
    {
        return count([this] { replay_preloaded(msg_v_); });
    }
};

struct capture_producer : lone_replay<vesk::pcapreplay> {
    using lone_replay::lone_replay;
    int read()
    {
        return count([this] { replay_captures("udp"); });
    }
};

int produce_from_file(bool preload)
{
    const support::scratch_dir folder;
    const std::string path = folder.file("data");
    support::write_file(path, std::string(COUNTED * size_t{vesk::MAX_BUFFER_SIZE}, 'x'));
    const peer receiver(SOCK_DGRAM);
    file_producer producer(
        receiver.name(), path, vesk::PROTOTYPE::UDP, 1U, preload, 0U, vesk::devname_t());
    return preload ? producer.preloaded() : producer.read();
}

int produce_from_capture(size_t size)
{
    const support::scratch_dir folder;
    const std::string path = folder.file("capture");
    support::frame_parts parts;
    parts.payload = support::sample_bytes(size);
    support::write_file(
        path, support::capture_bytes(
                  {static_cast<size_t>(COUNTED), support::udp_frame(parts)}));
    const peer receiver(SOCK_DGRAM);
    capture_producer producer(
        receiver.name(), path, vesk::PROTOTYPE::UDP, 1U, false, 0U, vesk::devname_t());
    return producer.read();
}

const std::map<std::string, std::function<int()>> PATHS{
    {"poller-udp", [] { return poll_udp(0); }},
    {"poller-udp-paced", [] { return poll_udp(PACED_SPEED); }},
    {"poller-tcp", [] { return poll_tcp(); }},
    {"producer-data-file", [] { return produce_from_file(false); }},
    {"producer-preloaded", [] { return produce_from_file(true); }},
    {"producer-capture-64", [] { return produce_from_capture(64); }},
    {"producer-capture-500", [] { return produce_from_capture(500); }},
    {"producer-capture-1400", [] { return produce_from_capture(1400); }},
};

// With another compiler or library the counts are others. The C library picks its
// copying loops by what the processor can do.
void list_paths()
{
    std::cout << COMPILER << ", C library " << ::gnu_get_libc_version() << ", "
              << ::pcap_lib_version()
              << (__builtin_cpu_supports("avx2") ? ", AVX2" : ", no AVX2") << '\n';
    for (const auto& [name, run] : PATHS)
        std::cout << name << '\n';
}

} // namespace

int main(int argc, char** argv)
try {
    if (argc == 1) {
        list_paths();
        return 0;
    }
    const auto path = PATHS.find(argv[1]);
    if (path == PATHS.end()) {
        std::cerr << "instructions: no path " << argv[1] << '\n';
        return 2;
    }
    // Captures describe themselves on standard output, which is kept for the number.
    std::streambuf* const output = std::cout.rdbuf(nullptr);
    const int messages = path->second();
    std::cout.rdbuf(output);
    std::cout.clear();
    std::cout << messages << '\n';
    return 0;
} catch (const std::exception& error) {
    std::cerr << "instructions: " << error.what() << '\n';
    return 1;
}
