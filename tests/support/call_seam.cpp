// The definitions behind the seam: one function per call, known to the linker
// by the call's own name, so that they win over the libraries' functions.
// Run on any thread, some before main.
#include "support/call_seam.h"

#include <cstdlib>

#include <dlfcn.h>

namespace support::details {
namespace {

// Where the second names point to structures, both layouts must be one.
static_assert(sizeof(off_t) == 8, "the second names need 64-bit file offsets");

// A linker that leaves out libraries nothing refers to would drop libpcap when
// all of the calls into it are defined here; this one is not.
__attribute__((used)) const char* (*const keep_libpcap_)() = &::pcap_lib_version;

template <class Call>
constinit std::atomic<typename Call::signature*> real_{nullptr};

class in_use {
public:
    explicit in_use(std::atomic<int>& users) : users_(users) { users_.fetch_add(1); }
    ~in_use() { users_.fetch_sub(1); }
    in_use(const in_use&) = delete;
    in_use& operator=(const in_use&) = delete;

private:
    std::atomic<int>& users_;
};

// A sanitizer's runtime that is linked into the program offers its interceptor
// under a second name only, since ours has taken the first; every other
// function is the next definition behind the program's.
template <class Call>
typename Call::signature* resolve(const char* name, typename Call::signature* interceptor)
{
    auto* function = real_<Call>.load(std::memory_order_acquire);
    if (function != nullptr) {
        return function;
    }
    function =
        interceptor != nullptr
            ? interceptor
            : reinterpret_cast<typename Call::signature*>(::dlsym(RTLD_NEXT, name));
    if (function == nullptr) {
        std::abort();
    }
    // Threads that resolve at once find the same function.
    real_<Call>.store(function, std::memory_order_release);
    return function;
}

template <class Call, class... Args>
auto enter(Args... args)
{
    if (hook_<Call>.load(std::memory_order_acquire) != nullptr) {
        const in_use mark(users_<Call>);
        if (const auto* hook = hook_<Call>.load(); hook != nullptr) {
            return (*hook)(args...);
        }
    }
    return real_function<Call>()(args...);
}

} // namespace

// Differently named functions with the symbol given apart: the headers' own
// declarations (their exception marks, their nonnull marks) stay out of it.
#define SUPPORT_SEAM_DEFINE(NAME, RESULT, PARAMETERS, ARGUMENTS)                         \
    extern "C" RESULT seam_interceptor_##NAME PARAMETERS __asm__("__interceptor_" #NAME) \
        __attribute__((weak));                                                           \
    template <>                                                                          \
    call::NAME::signature* real_function<call::NAME>()                                   \
    {                                                                                    \
        return resolve<call::NAME>(#NAME, &seam_interceptor_##NAME);                     \
    }                                                                                    \
    extern "C" RESULT seam_##NAME PARAMETERS __asm__(#NAME)                              \
        __attribute__((used, visibility("default")));                                    \
    RESULT seam_##NAME PARAMETERS { return enter<call::NAME> ARGUMENTS; }
SUPPORT_SEAM_CALLS(SUPPORT_SEAM_DEFINE)
#undef SUPPORT_SEAM_DEFINE

#define SUPPORT_SEAM_DEFINE_SECOND(NAME, FIRST)                                          \
    extern "C" call::FIRST::signature seam_##NAME __asm__(#NAME)                         \
        __attribute__((alias(#FIRST), used, visibility("default")));
SUPPORT_SEAM_SECOND_NAMES(SUPPORT_SEAM_DEFINE_SECOND)
#undef SUPPORT_SEAM_DEFINE_SECOND

} // namespace support::details
