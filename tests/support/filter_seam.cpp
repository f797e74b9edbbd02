// libpcap's pcap_compile, hidden from the leak check. The reader never hands a
// compiled filter back, by design: one program per opened capture. Naming the
// allocation itself spares the leak check a suppression by function name, which
// would need the slow unwinder in every test: libpcap keeps no frame pointers.
#include <cstdlib>

#include <dlfcn.h>
#include <pcap/pcap.h>

// Of the leak check's runtime; absent in builds without it.
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

extern "C" int pcap_compile(
    pcap_t* capture, bpf_program* program, const char* text, int optimize,
    bpf_u_int32 netmask)
{
    static auto* const compile =
        reinterpret_cast<decltype(&::pcap_compile)>(::dlsym(RTLD_NEXT, "pcap_compile"));
    if (compile == nullptr) {
        std::abort();
    }
    const bool checked = __lsan_disable != nullptr && __lsan_enable != nullptr;
    if (checked) {
        __lsan_disable();
    }
    const int result = compile(capture, program, text, optimize, netmask);
    if (checked) {
        __lsan_enable();
    }
    return result;
}
