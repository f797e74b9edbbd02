// Turns the fuzzer's bytes into decisions, taken from the front one by one.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

// Gives zeros once nothing is left, so that every input means something.
class byte_feed {
public:
    byte_feed(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool empty() const { return size_ == 0; }

    uint8_t byte()
    {
        if (empty())
            return 0;
        --size_;
        return *data_++;
    }

    // From as many bytes as the range needs, the lowest one first.
    uint64_t number(uint64_t least, uint64_t most)
    {
        const uint64_t range = most - least;
        uint64_t value = 0;
        for (unsigned shift = 0; shift < 64 && range >> shift != 0; shift += 8)
            value |= uint64_t{byte()} << shift;
        return range == UINT64_MAX ? value : least + value % (range + 1);
    }

    size_t count(size_t most) { return static_cast<size_t>(number(0, most)); }

    bool flag() { return (byte() & 1U) != 0; }

    template <class element_t, size_t COUNT>
    const element_t& pick(const element_t (&list)[COUNT])
    {
        return list[number(0, COUNT - 1)];
    }

    // So many bytes, or fewer when no more are left.
    std::string text(size_t length)
    {
        const size_t taken = std::min(length, size_);
        std::string bytes(reinterpret_cast<const char*>(data_), taken);
        data_ += taken;
        size_ -= taken;
        return bytes;
    }

private:
    const uint8_t* data_;
    size_t size_;
};

} // namespace fuzz
