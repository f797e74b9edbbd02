// Calls of the C library that a fuzzing program answers itself: those that wait,
// and those that would ask a network who a name in a filter is.
#include <cerrno>

#include <netdb.h>
#include <time.h>

extern "C" {

// A pause before the next try.
int nanosleep(const timespec* /*time*/, timespec* /*left*/) { return 0; }

int getaddrinfo(
    const char* /*node*/, const char* /*service*/, const addrinfo* /*hints*/,
    addrinfo** /*result*/)
{
    return EAI_NONAME;
}

netent* getnetbyname(const char* /*name*/) { return nullptr; }

int getnetbyname_r(
    const char* /*name*/, netent* /*entry*/, char* /*buffer*/, size_t /*size*/,
    netent** result, int* error)
{
    *result = nullptr;
    *error = HOST_NOT_FOUND;
    return ENOENT;
}

} // extern "C"
