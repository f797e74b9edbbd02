// The replays: what wires poller, engine and source together, the data-file and
// the capture source, and the run flag with its signal handler. The sources read
// on the main thread; only the base's events run on the poller thread.
#pragma once

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <ios>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

#include "common.h"
#include "epoll.h"
#include "tcp_engine.h"

namespace vesk {

// The process's stop request. Cleared by the signal handler, on any thread; set
// and polled by the main thread.
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): the process's
inline volatile bool keep_running_ = true;

namespace details {

// Relaxed on both sides: the flag guards no data, and every poll reads it afresh.
inline bool is_running() { return __atomic_load_n(&keep_running_, __ATOMIC_RELAXED); }
inline void set_running(bool running)
{
    __atomic_store_n(&keep_running_, running, __ATOMIC_RELAXED);
}

// Fills in the files of one pass: those of a directory, which then ends in '/', or
// the one file, whose name is kept as well. Throws for anything else.
inline void collect_files(
    FileType type, filename_t& filename, filename_t& in_filename,
    filename_list& filenames)
{
    switch (type) {
    case FileType::DIR:
        filenames = decode_filename(filename);
        if (filenames.empty())
            vesk_throw_ex("No files in dir " + filename_to_str(filename));
        break;
    case FileType::REG:
        in_filename = filename;
        filenames.push_back(std::move(filename));
        break;
    default:
        vesk_throw_ex("Not support file type.");
    }
}

} // namespace details

// Nothing but the flag: all that is safe in a signal handler.
inline void s_signal_handler(int /*signo*/) { details::set_running(false); }

// A hang-up or a receiver that closes does not end the run; SIGINT and SIGTERM do.
// None of these calls can fail for these signals.
inline void s_catch_signals()
{
    (void)::signal(SIGHUP, SIG_IGN);
    (void)::signal(SIGPIPE, SIG_IGN);

    struct sigaction action = {};
    // With this flag the kernel passes three arguments, of which the handler takes
    // the first alone; the calling convention lets the others go unread.
    action.sa_handler = s_signal_handler;
    action.sa_flags = SA_SIGINFO;
    (void)::sigemptyset(&action.sa_mask);
    (void)::sigaction(SIGINT, &action, nullptr);
    (void)::sigaction(SIGTERM, &action, nullptr);
}

// One run's poller, engine and, for TCP, the descriptor by which the poller thread
// says that a receiver is there. The main thread owns it.
class replay_base : public i_poll_events {
public:
    // Opens the endpoint and starts the poller thread. `speed` is in bits per
    // second, 0 for no limit. Throws for an unknown protocol; a socket that cannot
    // be opened is fatal.
    replay_base(addrname_t address, uint64_t speed, PROTOTYPE protocol, devname_t devname)
        : replay_base(std::move(address), protocol, std::move(devname))
    {
        // From here on the destructor runs when something throws, and takes back the
        // wake-up descriptor and the poller thread.
        poller_.reset(new (std::nothrow) epoll_t);
        replay_alloc_assert(poller_);
        const int started = poller_->start_poller("poller_thread");
        replay_errno_assert(started != -1);

        switch (protocol_) {
        case PROTOTYPE::TCP:
            open_tcp();
            break;
        case PROTOTYPE::UDP:
            open_udp();
            break;
        default:
            vesk_throw_ex("Unknown protocol.");
        }
        engine_->set_speed(speed);
    }

    // The poller thread ends before the wake-up descriptor is closed. A receiver
    // accepted in between could get its number, and with it the wake-up's bytes.
    ~replay_base() override
    {
        if (poller_ != nullptr)
            poller_->stop_poller();
        process_term();
    }

    replay_base(const replay_base&) = delete;
    replay_base& operator=(const replay_base&) = delete;

    // Poller thread: the engine has a receiver. Served once.
    void in_event() override
    {
        replay_assert(wakeup_fd_ != retired_fd);
        uint64_t count = 0;
        const ssize_t n = ::read(wakeup_fd_, &count, sizeof(count));
        if (n != static_cast<ssize_t>(sizeof(count)))
            return;
        // Release: the engine's queue, created on this thread, is there for the
        // main thread's acquire in is_connected().
        std::atomic_ref<bool>(is_connected_).store(true, std::memory_order_release);
        poller_->reset_pollin(handle_);
    }

    void out_event() override {}

    void process_term()
    {
        if (poller_ != nullptr && handle_ != nullptr) {
            poller_->rm_fd(handle_);
            handle_ = nullptr;
        }
        if (wakeup_fd_ != retired_fd) {
            (void)::close(wakeup_fd_); // an eventfd has nothing to flush
            wakeup_fd_ = retired_fd;
        }
    }

    fd_t create_eventfd() { return ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC); }

    // Main thread. Offers the message again and again, without a pause, until the
    // queue takes it. False when the run was stopped first; an rvalue message is
    // then still the caller's. Not before is_connected(): until then the poller
    // thread may be making the queue.
    template <class message_t>
    bool replay_internal(message_t&& message)
    {
        while (details::is_running()) {
            if (engine_->sendto(std::forward<message_t>(message)) == 0)
                return true;
        }
        return false;
    }

protected:
    // What the poller knows of the replay. The derived constructors change the
    // replay's own virtual table while the poller thread may already call, so a
    // derived class cannot override these events.
    class wakeup_handler final : public i_poll_events {
    public:
        explicit wakeup_handler(replay_base& replay) : replay_(replay) {}
        void in_event() override { replay_.replay_base::in_event(); }
        void out_event() override { replay_.replay_base::out_event(); }

    private:
        replay_base& replay_;
    };

    // Everything as it is while nothing has been opened.
    replay_base(addrname_t address, PROTOTYPE protocol, devname_t devname)
        : in_address_(std::move(address)), protocol_(protocol),
          devname_(std::move(devname))
    {}

    void open_tcp()
    {
        wakeup_fd_ = create_eventfd();
        replay_assert(wakeup_fd_ != retired_fd);
        handle_ = poller_->add_fd(wakeup_fd_, &wakeup_handler_);
        poller_->set_pollin(handle_);

        engine_.reset(new (std::nothrow) tcp_engine(poller_, wakeup_fd_));
        replay_alloc_assert(engine_);
        const int32_t rc = engine_->set_local_address(in_address_);
        replay_assert(rc != retired_fd);
    }

    void open_udp()
    {
        engine_ = std::make_shared<udp_engine>(poller_, devname_);
        const int32_t rc = engine_->set_local_address(in_address_);
        replay_errno_assert(rc != -1);
        std::atomic_ref<bool>(is_connected_).store(true, std::memory_order_release);
    }

    // Acquire: pairs with the release in in_event().
    bool is_connected()
    {
        return std::atomic_ref<bool>(is_connected_).load(std::memory_order_acquire);
    }

    // Runs `pass` until the passes are spent and then holds the run, with the
    // poller thread still sending, until it is stopped. 0 passes wrap around: as
    // good as no end. A stop requested before this is forgotten, by design.
    template <class pass_t>
    void run_passes(uint32_t& passes_left, pass_t pass)
    {
        details::set_running(true);
        while (details::is_running()) {
            if (!is_connected())
                continue;
            pass();
            if (--passes_left == 0)
                break;
        }
        while (details::is_running()) {
        }
    }

    // One pass from memory, from the last message to the first. The queue shares
    // the messages, which stay for the next pass.
    void replay_preloaded(std::vector<data_t>& messages)
    {
        for (auto message = messages.rbegin(); message != messages.rend(); ++message) {
            if (!replay_internal(*message) || !details::is_running())
                return;
        }
    }

    fd_t wakeup_fd_{retired_fd}; // none for UDP
    addrname_t in_address_;
    std::shared_ptr<epoll_t> poller_;
    std::shared_ptr<engine_base> engine_;
    handle_t handle_{nullptr};
    bool is_connected_{false}; // set by the poller thread, for UDP at once; main reads
    PROTOTYPE protocol_;
    devname_t devname_;
    wakeup_handler wakeup_handler_{*this};
};

// Replays data files as they stand, in blocks of MAX_BUFFER_SIZE bytes.
class filereplay : public replay_base {
public:
    // `filename` is a file or a directory, `loopback` the number of passes. Throws
    // for a path that cannot be replayed, once the endpoint is open.
    filereplay(
        addrname_t address, filename_t filename, PROTOTYPE protocol, uint32_t loopback,
        bool preload, uint64_t speed, devname_t devname)
        : replay_base(std::move(address), speed, protocol, std::move(devname)),
          loopback_(loopback), preload_(preload)
    {
        if (!details::path_exists(filename, type_)) {
            const int saved_errno = errno; // building the message may overwrite it
            vesk_throw_ex(
                "Cannot find file " + details::filename_to_str(filename), saved_errno);
        }
        details::collect_files(type_, filename, in_filename_, filename_v_);
        replay_assert(!filename_v_.empty());
        if (preload_ && filename_v_.size() == 1)
            (void)preload_file();
    }

    // The named files once over TCP, unlimited. A missing one throws when it is
    // its turn.
    filereplay(addrname_t address, filename_list filenames)
        : replay_base(std::move(address), 0, PROTOTYPE::TCP, devname_t()),
          type_(details::FileType::REG), filename_v_(std::move(filenames))
    {
        replay_assert(!filename_v_.empty());
    }

    ~filereplay() override = default;

    // Main thread. Returns when the run is stopped; throws when a file cannot be
    // opened.
    void start_replay()
    {
        run_passes(loopback_, [this] {
            if (preload_)
                replay_preloaded(msg_v_);
            else
                replay_files();
        });
    }

    // Reads the first file into memory; 0.
    int32_t preload_file()
    {
        file_helper_.open(filename_v_[0], READ_MODE);
        data_t msg;
        do {
            read_message(msg);
            if (msg->length != 0)
                msg_v_.push_back(std::move(msg));
        } while (!file_helper_.file_end());
        file_helper_.close();
        return 0;
    }

protected:
    static constexpr std::ios_base::openmode READ_MODE =
        std::ios_base::in | std::ios_base::binary;

    // Reads a block into `msg`: a fresh buffer, unless an empty read left one.
    void read_message(data_t& msg)
    {
        // cppcheck-suppress accessMoved ; one that has been sent is null, and replaced
        if (msg == nullptr)
            msg = std::make_shared<dataBuffer>();
        size_t length = MAX_BUFFER_SIZE;
        (void)file_helper_.read(msg->buf, length); // file_end() tells
        msg->length = length;
    }

    void replay_files()
    {
        for (const filename_t& filename : filename_v_) {
            replay_file(filename);
            if (!details::is_running())
                return;
        }
    }

    void replay_file(const filename_t& filename)
    {
        file_helper_.open(filename, READ_MODE);
        data_t msg;
        do {
            read_message(msg);
            if (msg->length != 0)
                (void)replay_internal(std::move(msg)); // refused only by a stop
        } while (details::is_running() && !file_helper_.file_end());
        file_helper_.close();
    }

    filename_t in_filename_; // empty for a directory
    details::file_helper file_helper_;
    details::FileType type_{details::FileType::UNKNOWN};
    filename_list filename_v_; // in replay order
    uint32_t loopback_{1};     // passes still to run
    bool preload_{false};
    std::vector<data_t> msg_v_; // in file order
};

// Replays the transport payloads of captures, one message each.
class pcapreplay : public replay_base {
public:
    // As filereplay's, except that a missing path is reported without its name.
    pcapreplay(
        addrname_t addr, filename_t filename, PROTOTYPE protocol, uint32_t loopback,
        bool preload, uint64_t speed, devname_t devname)
        : replay_base(std::move(addr), speed, protocol, std::move(devname)),
          loopback_(loopback), preload_(preload)
    {
        if (!details::path_exists(filename, type_))
            vesk_throw_ex("Cannot find file " + in_filename_);
        details::collect_files(type_, filename, in_filename_, filename_v_);
        replay_assert(!filename_v_.empty());
        if (preload_ && filename_v_.size() == 1)
            preload_file();
    }

    // Once over TCP, unlimited.
    pcapreplay(addrname_t addr, filename_t filename)
        : pcapreplay(
              std::move(addr), std::move(filename), PROTOTYPE::TCP, 1, false, 0,
              devname_t())
    {}

    ~pcapreplay() override = default;

    // Main thread. Returns when the run is stopped; throws for a filter that names
    // no transport, a capture that cannot be opened and a frame of invalid length.
    void start_replay(std::string filter)
    {
        run_passes(loopback_, [this, &filter] {
            if (preload_)
                replay_preloaded(msg_v_);
            else
                replay_captures(filter);
        });
    }

    // Reads the one capture into memory, always as TCP, whatever the run's filter.
    void preload_file()
    {
        if (filename_v_.size() != 1)
            return;
        (void)pcap_helper_.open(filename_v_[0], "tcp"); // refused: read unfiltered
        auto msg = std::make_shared<dataBuffer>();
        while (pcap_helper_.read(msg->buf, msg->length)) {
            if (msg->length == 0)
                continue;
            msg_v_.push_back(std::move(msg));
            msg = std::make_shared<dataBuffer>();
        }
        pcap_helper_.close();
    }

protected:
    // A capture whose filter was refused is skipped and stays open.
    void replay_captures(const std::string& filter)
    {
        for (const filename_t& filename : filename_v_) {
            if (!pcap_helper_.open(filename, filter))
                continue;
            replay_frames();
            pcap_helper_.close();
            if (!details::is_running())
                return;
        }
    }

    void replay_frames()
    {
        auto msg = std::make_shared<dataBuffer>();
        while (pcap_helper_.read(msg->buf, msg->length)) {
            if (msg->length != 0) {
                (void)replay_internal(std::move(msg)); // refused only by a stop
                msg = std::make_shared<dataBuffer>();
            }
            if (!details::is_running())
                return;
        }
    }

    filename_t in_filename_; // empty for a directory
    details::pcap_helper pcap_helper_;
    details::FileType type_{details::FileType::UNKNOWN};
    filename_list filename_v_; // in replay order
    uint32_t loopback_{1};     // passes still to run; both constructors set it
    bool preload_{false};
    std::vector<data_t> msg_v_; // in capture order
};

} // namespace vesk
