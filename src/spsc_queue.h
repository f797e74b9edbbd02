// The bounded lock-free ring that hands messages from one thread to another: to be sent,
// from the main thread to the poller thread, and to be freed, the other way. It never
// waits.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include "common.h"

namespace vesk {

struct default_trait {
    static void* malloc(std::size_t size) { return std::malloc(size); }
    static void free(void* p) { std::free(p); }
};

// A slot holds a live T only from its placement by the producer to its removal by
// the consumer; one slot always stays empty, to tell a full ring from an empty
// one. Each index is written by one side alone: its owner reads it relaxed, the
// other side acquires what the owner's store released.
template <class T, class Trait>
class spsc_queue {
public:
    using size_t = std::size_t;
    using AtomicIndex = std::atomic<uint32_t>;

    // Holds up to `size` elements. Throws std::bad_alloc.
    explicit spsc_queue(size_t size)
        : size_(size + 1), records_(allocate(size)), readIndex_(0), writeIndex_(0)
    {}

    ~spsc_queue()
    {
        const uint32_t end = writeIndex_.load(std::memory_order_relaxed);
        for (uint32_t read = readIndex_.load(std::memory_order_relaxed); read != end;
             read = after(read))
            records_[read].~T();
        aligned_free<T>(records_);
    }

    spsc_queue(const spsc_queue&) = delete;
    spsc_queue& operator=(const spsc_queue&) = delete;
    spsc_queue& operator=(spsc_queue&&) = delete;

    // While neither side uses `other`, which is left with a capacity of 0.
    spsc_queue(spsc_queue&& other) noexcept
        : size_(std::exchange(other.size_, 1)),
          records_(std::exchange(other.records_, nullptr)),
          readIndex_(other.readIndex_.exchange(0, std::memory_order_relaxed)),
          writeIndex_(other.writeIndex_.exchange(0, std::memory_order_relaxed))
    {}

    // Producer. False when full: nothing is built, and `args` are as they were.
    template <class... Args>
    bool enqueue(Args&&... args)
    {
        const uint32_t current = writeIndex_.load(std::memory_order_relaxed);
        const uint32_t next = after(current);
        // Acquire: the consumer's release says that it has left the slot.
        if (next == readIndex_.load(std::memory_order_acquire))
            return false;
        new (&records_[current]) T(std::forward<Args>(args)...);
        // Release: who sees the index sees the element.
        writeIndex_.store(next, std::memory_order_release);
        return true;
    }

    // Consumer. False when empty, with `record` as it was.
    bool try_dequeue(T& record)
    {
        const uint32_t current = readIndex_.load(std::memory_order_relaxed);
        // Acquire: the producer's release says that the element is there.
        if (current == writeIndex_.load(std::memory_order_acquire))
            return false;
        record = std::move(records_[current]);
        records_[current].~T();
        // Release: the producer may build in the slot again.
        readIndex_.store(after(current), std::memory_order_release);
        return true;
    }

    // Consumer. The oldest element, which stays queued; null when empty.
    T* frontPtr()
    {
        const uint32_t current = readIndex_.load(std::memory_order_relaxed);
        // Acquire: the producer's release says that the element is there.
        if (current == writeIndex_.load(std::memory_order_acquire))
            return nullptr;
        return &records_[current];
    }

    // Consumer. Drops the oldest element; the queue must not be empty.
    void popFront()
    {
        const uint32_t current = readIndex_.load(std::memory_order_relaxed);
        records_[current].~T();
        // Release: the producer may build in the slot again.
        readIndex_.store(after(current), std::memory_order_release);
    }

    // Either side. Snapshots: the other side may have moved on already. Acquire, for
    // the release of whichever side wrote the index last.
    bool isEmpty() const
    {
        return readIndex_.load(std::memory_order_acquire) ==
               writeIndex_.load(std::memory_order_acquire);
    }
    bool isFull() const
    {
        return after(writeIndex_.load(std::memory_order_acquire)) ==
               readIndex_.load(std::memory_order_acquire);
    }
    size_t sizeGuess() const
    {
        const size_t write = writeIndex_.load(std::memory_order_acquire);
        const size_t read = readIndex_.load(std::memory_order_acquire);
        return write >= read ? write - read : write + size_ - read;
    }

private:
    uint32_t after(uint32_t index) const { return index + 1 == size_ ? 0 : index + 1; }

    // The indices are 32 bits wide, and the product must not wrap.
    T* allocate(size_t size)
    {
        constexpr size_t MOST = std::min<size_t>(
            std::numeric_limits<uint32_t>::max(),
            std::numeric_limits<size_t>::max() / sizeof(T));
        void* records = size < MOST ? aligned_malloc<T>(size + 1) : nullptr;
        if (records == nullptr)
            throw std::bad_alloc();
        return static_cast<T*>(records);
    }

    template <class TAlign>
    void* aligned_malloc(size_t n)
    {
        return Trait::malloc(sizeof(TAlign) * n);
    }
    template <class TAlign>
    void aligned_free(void* p)
    {
        Trait::free(p);
    }

    size_t size_;
    T* records_;
    AtomicIndex readIndex_;  // written by the consumer, read by the producer
    AtomicIndex writeIndex_; // written by the producer, read by the consumer
};

using queue_ptr = std::shared_ptr<spsc_queue<data_t, default_trait>>;

} // namespace vesk
