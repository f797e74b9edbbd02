// The program's own new (nothrow). It takes its memory from the plain operator
// new, so whichever operator delete is in force may release it.
#include "support/allocation_seam.h"

#include <new>

namespace {

thread_local bool fail_ = false;

} // namespace

namespace support {

failing_nothrow_new::failing_nothrow_new() { fail_ = true; }
failing_nothrow_new::~failing_nothrow_new() { fail_ = false; }

} // namespace support

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    if (fail_)
        return nullptr;
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}
