// Bytes that come at one end and go at the other, in one piece.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "source.h"

namespace receiver {

// What has gone is cleared away only when it is as much as what is left, so that a
// byte is moved once on average.
class byte_queue {
public:
    bytes_view bytes() const { return bytes_view(held_).subspan(gone_); }
    size_t size() const { return held_.size() - gone_; }
    bool empty() const { return size() == 0; }

    void push(bytes_view bytes) { held_.insert(held_.end(), bytes.begin(), bytes.end()); }

    void pop(size_t count)
    {
        gone_ += count;
        if (gone_ < held_.size() - gone_)
            return;
        held_.erase(held_.begin(), held_.begin() + static_cast<ptrdiff_t>(gone_));
        gone_ = 0;
    }

    void clear()
    {
        held_.clear();
        gone_ = 0;
    }

private:
    std::vector<uint8_t> held_;
    size_t gone_{0};
};

} // namespace receiver
