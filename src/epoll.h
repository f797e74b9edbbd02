// The event loop: one epoll descriptor and the worker thread that waits on it
// and calls the registered handlers. All sending happens inside those calls.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <new>
#include <thread>

#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "common.h"

namespace vesk {

using epoll_fd_t = fd_t;
using handle_t = void*; // names one registration: the address of its poll_entry_t

enum : int { MAX_IO_EVENTS = 256 };

// What the poller calls, on its worker thread.
class i_poll_events {
public:
    virtual ~i_poll_events() = default;

    virtual void in_event() = 0;  // readable
    virtual void out_event() = 0; // writable
};

// Owned by the replay, which starts and stops it on the main thread. Descriptors
// are registered and changed from both threads, each one by one thread at a time.
class epoll_t {
public:
    struct poll_entry_t {
        fd_t fd; // retired_fd once removed; written by the registering thread
        epoll_event ev;
        i_poll_events* events; // not owned
    };

    epoll_t() : epoll_fd_(::epoll_create(1)) { replay_errno_assert(epoll_fd_ != -1); }

    ~epoll_t()
    {
        stop_poller();
        if (epoll_fd_ != retired_fd)
            (void)::close(epoll_fd_); // nothing is left to be written
        release_entries();
    }

    epoll_t(const epoll_t&) = delete;
    epoll_t& operator=(const epoll_t&) = delete;

    // Registers `fd` without any interest yet. The handler must outlive either
    // the registration or the worker.
    handle_t add_fd(fd_t fd, i_poll_events* events)
    {
        // cppcheck-suppress [legacyUninitvar,unreadVariable] ; misreads the braces
        auto* entry = new (std::nothrow) entry_node{};
        replay_alloc_assert(entry);
        entry->fd = fd;
        entry->ev.data.ptr = static_cast<poll_entry_t*>(entry);
        entry->events = events;
        keep(entry);
        control(EPOLL_CTL_ADD, entry);
        return static_cast<poll_entry_t*>(entry);
    }

    // The entry outlives its watch: an event already fetched in this batch may
    // still point here, and the loop knows a retired entry by its fd.
    void rm_fd(handle_t handle)
    {
        poll_entry_t* entry = entry_of(handle);
        control(EPOLL_CTL_DEL, entry);
        // Release, for the acquire in watched_fd() on the worker.
        std::atomic_ref<fd_t>(entry->fd).store(retired_fd, std::memory_order_release);
    }

    void set_pollin(handle_t handle) { change_interest(handle, EPOLLIN, true); }
    void reset_pollin(handle_t handle) { change_interest(handle, EPOLLIN, false); }
    void set_pollout(handle_t handle) { change_interest(handle, EPOLLOUT, true); }
    void reset_pollout(handle_t handle) { change_interest(handle, EPOLLOUT, false); }

    // Starts the worker under `name`; -1 when it runs already. Throws
    // std::system_error when the system has no thread to give.
    int start_poller(const char* name)
    {
        if (worker_thread_.joinable())
            return -1;
        set_running(true);
        worker_thread_ = std::thread([this] { loop(); });
        // A name that the kernel refuses leaves the thread with its parent's.
        (void)::pthread_setname_np(worker_thread_.native_handle(), name);
        return 0;
    }

    // Returns once the worker has left its current batch, or its current wait.
    void stop_poller()
    {
        set_running(false);
        if (worker_thread_.joinable())
            worker_thread_.join();
    }

    // Runs on the worker alone. A stop lets the batch at hand end first.
    void loop()
    {
        skip_cancellation();
        epoll_event events[MAX_IO_EVENTS];
        while (is_running()) {
            const int count = ::epoll_wait(epoll_fd_, events, MAX_IO_EVENTS, WAIT_MS);
            replay_errno_assert(count != -1 || errno == EINTR);
            for (int i = 0; i < count; ++i)
                dispatch(events[i]);
        }
    }

private:
    enum : int { WAIT_MS = 100 };

    // Entries are chained so that the poller can release them when it dies.
    struct entry_node : poll_entry_t {
        entry_node* next;
    };

    static poll_entry_t* entry_of(handle_t handle)
    {
        return static_cast<poll_entry_t*>(handle);
    }

    // Acquire: pairs with the release in control() on the thread that filled or
    // changed the entry, or with the one in rm_fd().
    static fd_t watched_fd(poll_entry_t* entry)
    {
        return std::atomic_ref<fd_t>(entry->fd).load(std::memory_order_acquire);
    }

    // Nobody cancels the worker. With cancellation off and its type asynchronous, the C
    // library has nothing to switch around the wait and the send, which otherwise takes
    // it four locked instructions. Neither call can fail with these values.
    static void skip_cancellation()
    {
        (void)::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        // NOLINTNEXTLINE(concurrency-thread-canceltype-asynchronous): nobody cancels
        (void)::pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    }

    // Writability goes first. The handler may remove its own descriptor there.
    static void dispatch(const epoll_event& event)
    {
        auto* entry = entry_of(event.data.ptr);
        if (watched_fd(entry) == retired_fd)
            return;
        if ((event.events & EPOLLOUT) != 0) {
            entry->events->out_event();
            if (watched_fd(entry) == retired_fd)
                return;
        }
        if ((event.events & EPOLLIN) != 0)
            entry->events->in_event();
    }

    void change_interest(handle_t handle, uint32_t direction, bool wanted)
    {
        poll_entry_t* entry = entry_of(handle);
        if (wanted)
            entry->ev.events |= direction;
        else
            entry->ev.events &= ~direction;
        control(EPOLL_CTL_MOD, entry);
    }

    void control(int operation, poll_entry_t* entry)
    {
        // A kernel call orders nothing in the language, so the same value is
        // stored again: release, for the worker that meets the entry in an event.
        const std::atomic_ref<fd_t> watched(entry->fd);
        const fd_t fd = watched.load(std::memory_order_relaxed);
        watched.store(fd, std::memory_order_release);
        const int rc = ::epoll_ctl(epoll_fd_, operation, fd, &entry->ev);
        replay_errno_assert(rc != -1);
    }

    // Both threads may push at once; nothing is taken out while either runs, so
    // relaxed order is enough: the join orders the pushes before the release.
    void keep(entry_node* entry)
    {
        entry->next = entries_.load(std::memory_order_relaxed);
        while (!entries_.compare_exchange_weak(
            entry->next, entry, std::memory_order_relaxed, std::memory_order_relaxed)) {
        }
    }

    void release_entries()
    {
        entry_node* entry = entries_.load(std::memory_order_relaxed);
        while (entry != nullptr) {
            entry_node* next = entry->next;
            delete entry;
            entry = next;
        }
    }

    // Release, for the worker's acquire between two waits: what the owner did
    // before a stop is done for the worker too once it sees the stop.
    void set_running(bool running)
    {
        std::atomic_ref<bool>(keep_running_).store(running, std::memory_order_release);
    }
    // Acquire, for the owner's release in set_running().
    bool is_running()
    {
        return std::atomic_ref<bool>(keep_running_).load(std::memory_order_acquire);
    }

    bool keep_running_{false}; // written by the owner, read by the worker
    epoll_fd_t epoll_fd_;
    std::thread worker_thread_;
    std::atomic<entry_node*> entries_{nullptr};
};

} // namespace vesk
