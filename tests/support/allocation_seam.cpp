// The program's own operators new and delete, and its own doors to the C library's
// heap. All memory comes from that heap in the end, so one count covers everything.
// These run on every thread, and before main, where no sanitizer is ready yet.
#include "support/allocation_seam.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <new>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

// Of the leak checker, where there is one: 1 when it found something.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

#if defined(__SANITIZE_THREAD__)
#define SUPPORT_UNCHECKED __attribute__((no_sanitize("thread")))
#else
#define SUPPORT_UNCHECKED __attribute__((no_sanitize("address", "undefined")))
#endif

namespace {

// What is to fail on one thread. Plain data: it must be there before any constructor.
struct plan {
    bool nothrow;
    bool lasting;
    uint64_t left; // allocations up to the one that fails, with it; 0: none fails
    bool failed;
};

thread_local constinit plan plan_{};

SUPPORT_UNCHECKED bool is_to_fail()
{
    if (plan_.left == 0)
        return false;
    if (plan_.left > 1) {
        --plan_.left;
        return false;
    }
    plan_.failed = true;
    plan_.left = plan_.lasting ? 1 : 0;
    errno = ENOMEM;
    return true;
}

} // namespace

namespace support {

failing_nothrow_new::failing_nothrow_new() { plan_.nothrow = true; }
failing_nothrow_new::~failing_nothrow_new() { plan_.nothrow = false; }

failing_allocation::failing_allocation(uint64_t nth, bool lasting)
{
    plan_.lasting = lasting;
    plan_.failed = false;
    plan_.left = nth;
}
failing_allocation::~failing_allocation() { plan_.left = 0; }

bool failing_allocation::failed() const { return plan_.failed; }

namespace {

// What the child tells of itself, in memory that both processes see.
struct child_report {
    bool finished;
    bool failed;
    bool leaked;
    char thrown[1024];
};

[[noreturn]] void be_child(
    const std::function<void()>& action, child_report& report, int errors)
{
    std::signal(SIGALRM, SIG_DFL);
    ::alarm(240); // a run that never ends is an end as well
    ::dup2(errors, STDERR_FILENO);
    ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    plan_.failed = false;
    try {
        action();
    } catch (const std::exception& error) {
        std::strncpy(report.thrown, error.what(), sizeof(report.thrown) - 1);
    }
    report.failed = plan_.failed;
    std::cout.flush();
    std::fflush(nullptr);
    if (&__lsan_do_recoverable_leak_check != nullptr)
        report.leaked = __lsan_do_recoverable_leak_check() != 0;
    report.finished = true;
    ::_exit(0);
}

std::string content_of(int fd)
{
    struct ::stat status = {};
    ::fstat(fd, &status);
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    const ssize_t count = ::pread(fd, text.data(), text.size(), 0);
    text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return text;
}

} // namespace

std::string process_end::text() const
{
    return (signal != 0 ? "signal " + std::to_string(signal) + " " : "") +
           (status != 0 ? "status " + std::to_string(status) + " " : "") +
           (leaked ? "leaked " : "") + (thrown.empty() ? "" : "threw: " + thrown + " ") +
           (errors.empty() ? "" : "wrote: " + errors);
}

process_end run_apart(const std::function<void()>& action)
{
    auto* report = static_cast<child_report*>(::mmap(
        nullptr, sizeof(child_report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
        -1, 0));
    if (report == MAP_FAILED)
        std::abort();
    const int errors = ::memfd_create("standard error", MFD_CLOEXEC);
    std::cout.flush();
    std::fflush(nullptr); // or the child would write it a second time
    const pid_t child = ::fork();
    if (child == -1)
        std::abort(); // nothing has been done that could have ended well
    if (child == 0)
        be_child(action, *report, errors);

    int status = 0;
    while (::waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    process_end end;
    end.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    end.status = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
    end.failed = !report->finished || report->failed;
    end.leaked = report->leaked;
    end.thrown = report->thrown;
    end.errors = content_of(errors);
    ::close(errors);
    ::munmap(report, sizeof(child_report));
    return end;
}

std::vector<process_end> ends_of_each_failing_allocation(
    const std::function<void(uint64_t nth)>& action)
{
    constexpr std::size_t MOST = 1000; // some runs never get that far
    std::vector<process_end> ends;
    do {
        const uint64_t nth = ends.size() + 1;
        ends.push_back(run_apart([&] { action(nth); }));
        // One that had to be ended is enough: the others might take as long.
    } while (ends.back().failed && ends.back().signal != SIGALRM && ends.size() < MOST);
    return ends;
}

} // namespace support

// The C library's heap. A sanitizer that is linked into the program offers its own
// under a second name, as the first is taken here; else glibc offers one for this use.
#define SUPPORT_HEAP_CALL(NAME, PARAMETERS, ARGUMENTS)                                   \
    extern "C" void* seam_interceptor_##NAME PARAMETERS __asm__("__interceptor_" #NAME)  \
        __attribute__((weak));                                                           \
    extern "C" void* seam_libc_##NAME PARAMETERS __asm__("__libc_" #NAME);               \
    extern "C" void* seam_##NAME PARAMETERS __asm__(#NAME)                               \
        __attribute__((used, visibility("default")));                                    \
    SUPPORT_UNCHECKED void* seam_##NAME PARAMETERS                                       \
    {                                                                                    \
        if (is_to_fail())                                                                \
            return nullptr;                                                              \
        return &seam_interceptor_##NAME != nullptr ? seam_interceptor_##NAME ARGUMENTS   \
                                                   : seam_libc_##NAME ARGUMENTS;         \
    }

SUPPORT_HEAP_CALL(malloc, (std::size_t size), (size))
SUPPORT_HEAP_CALL(calloc, (std::size_t count, std::size_t size), (count, size))
SUPPORT_HEAP_CALL(realloc, (void* old, std::size_t size), (old, size))

void* operator new(std::size_t size)
{
    void* memory = std::malloc(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return plan_.nothrow ? nullptr : std::malloc(size);
}

void* operator new[](std::size_t size) { return ::operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept
{
    return ::operator new(size, tag);
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}
