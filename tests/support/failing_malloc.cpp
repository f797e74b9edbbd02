// Preloaded into a program, makes one allocation of the C library's heap fail: the one
// that REPLAY_FAIL_ALLOCATION numbers, counting all threads' from the start of main on,
// and with a "+" behind the number all later ones too. The count is kept in the eight
// bytes of the file that REPLAY_ALLOCATION_COUNT names, where it outlives the program.
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" {
// The C library's own, under the names that it keeps for such replacements.
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
}

namespace {

using main_t = int (*)(int, char**, char**);
using start_t = int (*)(main_t, int, char**, void (*)(), void (*)(), void (*)(), void*);

main_t main_ = nullptr;
// Both are set before main, on the only thread there is.
uint64_t nth_ = 0;
bool lasting_ = false;
std::atomic<uint64_t>* count_ = nullptr; // null: nothing is counted yet

bool is_to_fail()
{
    if (count_ == nullptr)
        return false;
    // Relaxed: a count and nothing else.
    const uint64_t number = count_->fetch_add(1, std::memory_order_relaxed) + 1;
    if (number != nth_ && !(lasting_ && number > nth_))
        return false;
    errno = ENOMEM;
    return true;
}

void start_counting()
{
    const char* number = std::getenv("REPLAY_FAIL_ALLOCATION");
    const char* path = std::getenv("REPLAY_ALLOCATION_COUNT");
    if (number == nullptr || path == nullptr)
        return;
    char* end = nullptr;
    nth_ = std::strtoull(number, &end, 10);
    lasting_ = *end == '+';
    const int fd = ::open(path, O_RDWR | O_CLOEXEC);
    void* count =
        ::mmap(nullptr, sizeof(*count_), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (count == MAP_FAILED)
        std::abort();
    count_ = static_cast<std::atomic<uint64_t>*>(count);
}

int counted_main(int argc, char** argv, char** environment)
{
    start_counting();
    return main_(argc, argv, environment);
}

} // namespace

extern "C" {

// Called by the program's first instructions, with its main.
int __libc_start_main(
    main_t main, int argc, char** argv, void (*init)(), void (*fini)(),
    void (*rtld_fini)(), void* stack_end)
{
    main_ = main;
    const auto start = reinterpret_cast<start_t>(::dlsym(RTLD_NEXT, "__libc_start_main"));
    return start(counted_main, argc, argv, init, fini, rtld_fini, stack_end);
}

void* malloc(std::size_t size) { return is_to_fail() ? nullptr : __libc_malloc(size); }

void* calloc(std::size_t count, std::size_t size)
{
    return is_to_fail() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* old, std::size_t size)
{
    return is_to_fail() ? nullptr : __libc_realloc(old, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    return is_to_fail() ? nullptr : __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size)
{
    if (is_to_fail())
        return ENOMEM;
    *memory = __libc_memalign(alignment, size);
    return *memory != nullptr ? 0 : ENOMEM;
}
}
