// Makes the allocations that report failure by a null pointer, new (nothrow),
// fail on the current thread for one scope.
#pragma once

namespace support {

class failing_nothrow_new {
public:
    failing_nothrow_new();
    ~failing_nothrow_new();
    failing_nothrow_new(const failing_nothrow_new&) = delete;
    failing_nothrow_new& operator=(const failing_nothrow_new&) = delete;
};

} // namespace support
