// The sending side: pacing, the engine base with its socket routines, and the TCP
// and UDP engines. Set up on the main thread; everything else runs on the poller
// thread, except that messages are handed over and freed on the main thread.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "common.h"
#include "epoll.h"
#include "ip_resover.h"
#include "spsc_queue.h"
#include "tcp_address.h"
#include "udp_address.h"

// Non-zero: dump every message sent. Written before any thread starts.
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): the process's
inline uint32_t g_debug_mode = 0;

namespace vesk {

enum : int { QUEUE_CAPACITY = 1024 };
enum : int { LISTEN_BACKLOG = 100 };

// Messages sent that the main thread frees for each one that it hands over. With two,
// those queued and those on their way back never add up to more than a queue holds.
enum : int { FREED_PER_MESSAGE = 2 };

// The pacing record. It spans the whole run, so that a rate holds over files and
// passes and not just within one.
struct replay_stats {
    timestamp_t start_time{}; // the first paced message
    timestamp_t end_time{};   // just before the latest complete send
    uint64_t bytes_sent{0};
    timespec nap{};          // the pause before the current message
    uint64_t skip_length{0}; // bytes behind schedule, which go out unpaused
    bool first_time{true};
    bool top_speed{true}; // no pacing
};

// The poller thread's. set_speed() clears top_speed on the main thread, and the
// hand-over of the first message orders that: nothing here is looked at before a
// message has been taken from the queue.
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): the process's
inline replay_stats stats;

namespace details {

enum : int { MICROSECONDS_PER_SECOND = 1000000 };

inline uint64_t to_microseconds(const timestamp_t& time)
{
    return static_cast<uint64_t>(time.tv_sec) * MICROSECONDS_PER_SECOND +
           static_cast<uint64_t>(time.tv_usec);
}

// Microseconds from the start by which `bytes` are due at `bits_per_second`.
// Past 2^44 - 1 bits a fast run counts in milliseconds, so that the product
// stays within 64 bits.
inline uint64_t due_time_us(uint64_t bytes, uint64_t bits_per_second)
{
    if (bytes * 8 > 0xFFFFFFFFFFF && bits_per_second > 500000)
        return bytes * 8000 / bits_per_second * 1000;
    return bytes * 8000000 / bits_per_second;
}

// Bytes that `bits_per_second` would have carried in `late_us` microseconds.
inline uint64_t overdue_bytes(uint64_t late_us, uint64_t bits_per_second)
{
    return bits_per_second * late_us / 8000000;
}

inline bool is_before(const timestamp_t& left, const timestamp_t& right)
{
    return left.tv_sec < right.tv_sec ||
           (left.tv_sec == right.tv_sec && left.tv_usec < right.tv_usec);
}

} // namespace details

// Base of the engines. Owned by the replay, called back by the poller.
class engine_base : public i_poll_events {
public:
    engine_base() = default;
    ~engine_base() override = default;

    engine_base(const engine_base&) = delete;
    engine_base& operator=(const engine_base&) = delete;

    // Resolves "host:port", opens and registers the socket. 0, or -1 with errno.
    virtual int32_t set_local_address(std::string& addr) = 0;

    // Bits per second. Anything but 0 switches pacing on for the whole process.
    void set_speed(uint64_t speed)
    {
        m_speed_ = speed;
        if (speed != 0)
            stats.top_speed = false;
    }

    // Main thread. Hands a message over; 0, or -1 with EAGAIN while the queue is
    // full or missing, and then an rvalue message is still the caller's.
    template <class message_t>
    int32_t sendto(message_t&& msg)
    {
        return push_msg_to_pipe(std::forward<message_t>(msg));
    }

    template <class message_t>
    int32_t push_msg_to_pipe(message_t&& msg)
    {
        if (queue_ != nullptr && queue_->enqueue(std::forward<message_t>(msg))) {
            free_spent();
            return 0;
        }
        errno = EAGAIN;
        return -1;
    }

    // Poller thread. 0 and the oldest message, or -1 with EAGAIN.
    int32_t pull_msg_from_pipe(data_t& msg)
    {
        if (queue_ != nullptr && queue_->try_dequeue(msg))
            return 0;
        errno = EAGAIN;
        return -1;
    }

    int32_t create_socket(int32_t domain, int32_t type, int32_t protocol)
    {
        return ::socket(domain, type, protocol);
    }

    int32_t unblock_socket(fd_t fd)
    {
        const int flags = ::fcntl(fd, F_GETFL, 0);
        return ::fcntl(fd, F_SETFL, (flags == -1 ? 0 : flags) | O_NONBLOCK);
    }

    void make_socket_noninheritable(fd_t fd)
    {
        const int rc = ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        replay_assert(rc != -1);
    }

    // Switches the option on; no caller has ever wanted it off.
    int32_t set_reuse_address(fd_t fd, bool)
    {
        return set_int_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    }

    // Finishes a message of which `already_sent` bytes have left, waiting for
    // room without a time-out. 0, or -1 on a socket error.
    // NOLINTNEXTLINE(performance-unnecessary-value-param): holds the message
    int32_t wait_to_send(fd_t fd, data_t msg, ssize_t already_sent)
    {
        pollfd room{fd, POLLOUT, 0};
        const char* data = msg->buf + already_sent;
        size_t length = msg->length - static_cast<size_t>(already_sent);
        for (;;) {
            std::cout << "Using poll wait to send " << length << " bytes." << std::endl;
            (void)::poll(&room, 1, -1); // the send tells what there is to know
            const ssize_t sent = ::send(fd, data, length, 0);
            if (sent == static_cast<ssize_t>(length))
                return 0;
            if (sent < -1 || (sent == -1 && !is_transient(errno)))
                return -1;
            if (sent == -1) {
                replay_assert(length > 0);
                continue;
            }
            data += sent;
            length -= static_cast<size_t>(sent);
        }
    }

protected:
    static bool is_transient(int error) { return error == EAGAIN || error == EINTR; }

    static int32_t set_int_option(fd_t fd, int level, int option, int value)
    {
        return ::setsockopt(fd, level, option, &value, sizeof(value));
    }

    // Takes one message, paces it and sends it by `send_once(data, length)`, one
    // system call. False when sending has failed for good.
    template <class send_once_t>
    bool send_next(fd_t fd, send_once_t send_once)
    {
        data_t msg;
        if (pull_msg_from_pipe(msg) != 0)
            return true;

        fetch_next();
        const bool paced = !stats.top_speed;
        timestamp_t now;
        if (paced)
            pace(msg->length, &now);

        const ssize_t sent = send_once(msg->buf, msg->length);
        if (unlikely(sent != static_cast<ssize_t>(msg->length)) &&
            !finish_send(fd, msg, sent))
            return false;

        if (unlikely(g_debug_mode != 0))
            details::binary_output(msg->buf, msg->length);
        if (paced) {
            stats.end_time = now;
            stats.bytes_sent += msg->length;
        }
        give_back(std::move(msg));
        return true;
    }

    // Poller thread. Has the head of the next message brought over from the main thread's
    // processor while this one is being sent.
    void fetch_next()
    {
        constexpr size_t CACHE_LINE = 64;
        const data_t* next = queue_->frontPtr();
        if (next == nullptr)
            return;
        const char* head = reinterpret_cast<const char*>(next->get());
        __builtin_prefetch(head);
        __builtin_prefetch(head + CACHE_LINE);
    }

    // Poller thread. Returns a message that nobody else holds to the thread that made
    // it. Freed here it would cost a lock in the heap, which the other thread keeps
    // busy with the next message. Where it cannot go back it is freed here all the same.
    void give_back(data_t msg)
    {
        if (spent_ != nullptr && msg.use_count() == 1)
            (void)spent_->enqueue(std::move(msg));
    }

    // Main thread. The other end of give_back().
    void free_spent()
    {
        if (spent_ == nullptr)
            return;
        data_t spent;
        for (int i = 0; i < FREED_PER_MESSAGE && spent_->try_dequeue(spent); ++i) {
        }
    }

    // Deals with a first send that returned `sent`, not the whole length; errno
    // is still that call's. True when the message then left completely.
    [[gnu::noinline]] bool finish_send(fd_t fd, const data_t& msg, ssize_t sent)
    {
        if (sent == -1 && !is_transient(errno))
            return false;
        const ssize_t already_sent = std::max<ssize_t>(sent, 0);
        std::cout << "Warning: unable to send all data, already send len: "
                  << already_sent << std::endl;
        if (wait_to_send(fd, msg, already_sent) == -1)
            return false;
        // A first send without room is fatal even when the retry delivered all.
        return sent != -1;
    }

    // Waits until `length` more bytes may leave; `now` is the time of leaving.
    void pace(uint64_t length, timestamp_t* now)
    {
        ::gettimeofday(now, nullptr);
        if (stats.start_time.tv_sec == 0 && stats.start_time.tv_usec == 0)
            stats.start_time = *now;
        if (stats.skip_length > length) {
            stats.skip_length -= length;
            return;
        }
        ::gettimeofday(now, nullptr);
        stats.skip_length = 0;
        calc_sleep_time(length, now, m_speed_);
        tcpr_sleep(&stats.nap, now);
    }

    // Sets stats.nap, or stats.skip_length when behind. The schedule runs from the
    // previous send and not from `now`, which is therefore unused: time spent in
    // between is not made up for.
    void calc_sleep_time(uint64_t length, timestamp_t* /*now*/, uint64_t speed)
    {
        if (speed == 0)
            vesk_throw_ex("speed is zero.");
        if (stats.first_time) {
            stats.first_time = false;
            return;
        }

        stats.nap = timespec{};
        const uint64_t end_us = details::to_microseconds(stats.end_time);
        if (end_us == 0)
            return;

        const uint64_t elapsed_us = end_us - details::to_microseconds(stats.start_time);
        const uint64_t target_us = details::due_time_us(stats.bytes_sent + length, speed);
        if (elapsed_us >= target_us) {
            stats.skip_length = details::overdue_bytes(elapsed_us - target_us, speed);
            return;
        }
        const uint64_t nap_ns = (target_us - elapsed_us) * 1000;
        stats.nap.tv_sec = static_cast<time_t>(nap_ns / 1000000000);
        stats.nap.tv_nsec = static_cast<long>(nap_ns % 1000000000);
    }

    // Yields until `now` has moved on by `nap`. The kernel's timers would cost the
    // microseconds that this keeps.
    void tcpr_sleep(timespec* nap, timeval* now)
    {
        if (nap->tv_sec == 0 && nap->tv_nsec == 0)
            return;
        timeval deadline{now->tv_sec + nap->tv_sec, now->tv_usec + nap->tv_nsec / 1000};
        if (deadline.tv_usec >= details::MICROSECONDS_PER_SECOND) {
            deadline.tv_usec -= details::MICROSECONDS_PER_SECOND;
            ++deadline.tv_sec;
        }
        while (details::is_before(*now, deadline)) {
            ::sched_yield();
            ::gettimeofday(now, nullptr);
        }
    }

    void create_queue()
    {
        spent_ = std::make_shared<queue_ptr::element_type>(QUEUE_CAPACITY);
        queue_ = std::make_shared<queue_ptr::element_type>(QUEUE_CAPACITY);
        replay_assert(queue_ != nullptr);
    }

    uint64_t m_speed_{0}; // bits per second; 0: no limit
    // Null until the engine can send. For TCP the poller thread sets it, and the
    // main thread may look only after the wake-up has reached it.
    queue_ptr queue_;
    // The way back of messages sent, from the poller thread to the main thread. It comes
    // with queue_, and what is said there holds for it too; an engine that brings a
    // queue of its own goes without, and frees its messages where they were sent.
    queue_ptr spent_;
};

// Listens, and sends to the newest receiver that has connected. The main thread
// constructs it and sets its address; the rest runs on the poller thread.
class tcp_engine : public engine_base {
public:
    // `wakeup_fd` stays the caller's. It is written once, when messages may come.
    tcp_engine(std::weak_ptr<epoll_t> poller, fd_t wakeup_fd)
        : poller_(std::move(poller)), wakeup_fd_(wakeup_fd)
    {}
    ~tcp_engine() override
    {
        process_term();
        close();
    }

    int32_t set_local_address(std::string& addr) override
    {
        if (address_.resolve(addr) != 0)
            return -1;
        listen_fd_ = create_socket(address_.family(), SOCK_STREAM, IPPROTO_TCP);
        if (listen_fd_ == -1)
            return -1;
        make_socket_noninheritable(listen_fd_);
        replay_assert(listen_fd_ != retired_fd);

        const bool listening =
            set_reuse_address(listen_fd_, true) == 0 &&
            ::bind(listen_fd_, address_.addr(), address_.addrlen()) == 0 &&
            ::listen(listen_fd_, LISTEN_BACKLOG) == 0;
        if (!listening) {
            const int saved_errno = errno; // close() may overwrite it
            close();
            errno = saved_errno;
            return -1;
        }
        if (const auto poller = poller_.lock()) {
            listen_handle_ = poller->add_fd(listen_fd_, this);
            poller->set_pollin(listen_handle_);
        }
        return 0;
    }

    // A receiver has connected. It takes the place of an earlier one, which is
    // neither closed nor taken out of the poller.
    void in_event() override
    {
        conn_fd_ = accept();
        if (conn_fd_ == -1)
            return;
        int32_t rc = tune_tcp_socket(conn_fd_, 1);
        rc |= unblock_socket(conn_fd_);
        const auto poller = poller_.lock();
        if (rc != 0 || poller == nullptr)
            return; // the receiver stays connected, and asks for nothing
        conn_handle_ = poller->add_fd(conn_fd_, this);
        poller->set_pollout(conn_handle_);
        if (queue_ == nullptr) {
            create_queue();
            wakeup(); // only now may the main thread look for the queue
        }
        out_event();
    }

    // Sends one message. With none queued the write interest stays, so that the
    // poller calls again at once instead of waiting.
    void out_event() override
    {
        replay_assert(conn_fd_ != retired_fd);
        const bool sending = send_next(conn_fd_, [this](const char* data, size_t length) {
            return ::send(conn_fd_, data, length, 0);
        });
        if (unlikely(!sending))
            stop_sending();
    }

    // Accepts one receiver: its descriptor, or -1 when the attempt may be ignored.
    // Any other failure is fatal.
    int32_t accept()
    {
        replay_assert(listen_fd_ != retired_fd);
        sockaddr_storage peer{}; // nobody asks who it is
        socklen_t length = sizeof(peer);
        const fd_t fd = ::accept(listen_fd_, reinterpret_cast<sockaddr*>(&peer), &length);
        if (fd == -1) {
            replay_errno_assert(is_passing_accept_error(errno));
            return -1;
        }
        make_socket_noninheritable(fd);
        return fd;
    }

    void wakeup()
    {
        const uint64_t one = 1;
        const auto n = static_cast<size_t>(::write(wakeup_fd_, &one, sizeof(one)));
        replay_assert(n == sizeof(uint64_t));
    }

    // Takes the listening socket and the newest connection out of the poller.
    void process_term()
    {
        const auto poller = poller_.lock();
        if (poller == nullptr)
            return;
        for (handle_t* handle : {&listen_handle_, &conn_handle_}) {
            if (*handle == nullptr)
                continue;
            poller->rm_fd(*handle);
            *handle = nullptr;
        }
    }

    void close()
    {
        for (fd_t* fd : {&listen_fd_, &conn_fd_}) {
            if (*fd == retired_fd)
                continue;
            (void)::close(*fd); // what was sent is the kernel's already
            *fd = retired_fd;
        }
    }

    int32_t tune_tcp_socket(fd_t fd, int32_t no_delay)
    {
        return set_int_option(fd, IPPROTO_TCP, TCP_NODELAY, no_delay);
    }

    // The system's own retransmission and keep-alive settings stay in force.
    int32_t tune_tcp_maxrt(fd_t, int32_t) { return 0; }
    int32_t tune_tcp_keepalives(fd_t, int32_t) { return 0; }

protected:
    static bool is_passing_accept_error(int error)
    {
        switch (error) {
        case EAGAIN:
        case EINTR:
        case ECONNABORTED:
        case EPROTO:
        case ENOBUFS:
        case ENOMEM:
        case EMFILE:
        case ENFILE:
            return true;
        default:
            return false;
        }
    }

    // The message is lost and the connection stays open, silent from here on.
    [[gnu::noinline]] void stop_sending()
    {
        std::cout << "Socket error" << std::endl;
        if (const auto poller = poller_.lock())
            poller->reset_pollout(conn_handle_);
    }

    std::weak_ptr<epoll_t> poller_;
    handle_t listen_handle_{nullptr};
    handle_t conn_handle_{nullptr};
    fd_t listen_fd_{retired_fd};
    fd_t conn_fd_{retired_fd};
    fd_t wakeup_fd_; // the replay's
    tcp_address_t address_;
};

// Sends each message as one datagram, or, in receive mode, takes in what arrives.
// The main thread constructs it and sets its address; the events run on the
// poller thread. The poller must have stopped before the engine is destroyed.
class udp_engine : public engine_base {
public:
    // A device has to come as a devname_t: a literal would pick the bool.
    udp_engine(std::weak_ptr<epoll_t> poller, bool send_enabled, devname_t devname)
        : poller_(std::move(poller)), send_enabled_(send_enabled),
          devname_(std::move(devname))
    {}
    udp_engine(std::weak_ptr<epoll_t> poller, bool send_enabled)
        : poller_(std::move(poller)), send_enabled_(send_enabled)
    {}
    udp_engine(std::weak_ptr<epoll_t> poller, devname_t devname)
        : udp_engine(std::move(poller), true, std::move(devname))
    {}
    explicit udp_engine(std::weak_ptr<epoll_t> poller) : poller_(std::move(poller)) {}
    explicit udp_engine(bool send_enabled) : send_enabled_(send_enabled) {}
    udp_engine() = default;
    ~udp_engine() override { close(); }

    int32_t set_local_address(std::string& addr) override
    {
        if (address_.resolve(addr, !send_enabled_) != 0)
            return -1;
        sock_fd_ = create_socket(address_.family(), SOCK_DGRAM, IPPROTO_UDP);
        if (sock_fd_ == -1)
            return -1;
        (void)unblock_socket(sock_fd_); // a blocking socket would still send
        if (const auto poller = poller_.lock())
            handle_ = poller->add_fd(sock_fd_, this);

        if ((send_enabled_ ? prepare_to_send() : prepare_to_receive()) != 0) {
            const int saved_errno = errno; // close() may overwrite it
            close();
            errno = saved_errno;
            return -1;
        }
        // The queue comes before the interest: from then on the poller thread may
        // look for it.
        create_queue();
        if (const auto poller = poller_.lock()) {
            if (send_enabled_)
                poller->set_pollout(handle_);
            else
                poller->set_pollin(handle_);
        }
        return 0;
    }

    // Receive mode: takes in one datagram, of which 1024 bytes are looked at.
    void in_event() override
    {
        char buffer[1024];
        sockaddr_in source{};
        socklen_t length = sizeof(source);
        const ssize_t received = ::recvfrom(
            sock_fd_, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&source),
            &length);
        if (received > 0 && g_debug_mode != 0)
            details::binary_output(buffer, static_cast<size_t>(received));
    }

    // Send mode: sends one message. With none queued the write interest stays, so
    // that the poller calls again at once instead of waiting.
    void out_event() override
    {
        replay_assert(sock_fd_ != retired_fd);
        const bool sending = send_next(sock_fd_, [this](const char* data, size_t length) {
            return ::sendto(sock_fd_, data, length, 0, out_address_, out_address_len_);
        });
        if (unlikely(!sending))
            stop_sending();
    }

    void close()
    {
        if (sock_fd_ == retired_fd)
            return;
        (void)::close(sock_fd_); // what was sent is the kernel's already
        sock_fd_ = retired_fd;
    }

    // Socket options: 0, or -1 with errno.
    int32_t add_membership(fd_t fd)
    {
        ip_mreq request{};
        request.imr_multiaddr = address_.target_addr()->ipv4.sin_addr;
        request.imr_interface = address_.bind_addr()->ipv4.sin_addr;
        return ::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request));
    }

    // Switches the option on; no caller has ever wanted it off.
    int32_t set_udp_reuse_port(fd_t fd, bool)
    {
        return set_int_option(fd, SOL_SOCKET, SO_REUSEPORT, 1);
    }

    int32_t set_udp_multicast_loop(fd_t fd, bool loop)
    {
        return set_int_option(fd, IPPROTO_IP, IP_MULTICAST_LOOP, loop ? 1 : 0);
    }

    int32_t set_udp_multicast_ttl(fd_t fd, int hops)
    {
        return set_int_option(fd, IPPROTO_IP, IP_MULTICAST_TTL, hops);
    }

    // Nothing to choose while bound to the wildcard address.
    int32_t set_udp_multicast_iface(fd_t fd)
    {
        const in_addr address = address_.bind_addr()->ipv4.sin_addr;
        if (address.s_addr == htonl(INADDR_ANY))
            return 0;
        return ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &address, sizeof(address));
    }

    int32_t set_udp_multicast_device(fd_t fd, devname_t devname)
    {
        ifreq request{};
        std::memcpy(
            request.ifr_name, devname.data(),
            std::min(devname.size(), sizeof(request.ifr_name)));
        return ::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, &request, sizeof(request));
    }

protected:
    // Neither bound nor connected: the kernel picks the source port.
    int32_t prepare_to_send()
    {
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): only ever read
        out_address_ = const_cast<ip_addr_t*>(address_.target_addr())->as_sockaddr();
        out_address_len_ = address_.target_addr()->sockaddr_len();

        int32_t rc = set_udp_multicast_loop(sock_fd_, false);
        if (!devname_.empty())
            rc |= set_udp_multicast_device(sock_fd_, devname_);
        if (address_.is_mcast()) {
            rc |= set_udp_multicast_iface(sock_fd_);
            if (!devname_.empty())
                rc |= set_udp_multicast_device(sock_fd_, devname_);
        }
        return rc;
    }

    int32_t prepare_to_receive()
    {
        int32_t rc = set_reuse_address(sock_fd_, true);
        ip_addr_t local = *address_.bind_addr();
        if (address_.is_mcast()) {
            rc |= set_udp_reuse_port(sock_fd_, true);
            local = ip_addr_t::any(address_.family());
            local.set_port(address_.bind_addr()->port());
        }
        if (rc != 0 || ::bind(sock_fd_, local.as_sockaddr(), local.sockaddr_len()) != 0)
            return -1;
        if (address_.is_mcast())
            (void)add_membership(sock_fd_); // without a route the socket just stays quiet
        return 0;
    }

    // The message is lost and nothing more is sent.
    [[gnu::noinline]] void stop_sending()
    {
        std::cout << "socket error" << std::endl;
        if (const auto poller = poller_.lock())
            poller->reset_pollout(handle_);
    }

    std::weak_ptr<epoll_t> poller_;
    udp_address_t address_;
    handle_t handle_{nullptr};
    fd_t sock_fd_{retired_fd};
    sockaddr* out_address_{nullptr}; // inside address_
    socklen_t out_address_len_{0};
    bool send_enabled_{true};
    devname_t devname_;
};

} // namespace vesk
