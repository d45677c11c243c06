// No header that declares the calls may be included: with 64-bit offsets and times they rename them.
#include "tests/daemon/failing_calls.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <new>

namespace failing {

thread_local bool t_product = true;

namespace {

std::atomic<const char*> g_call = nullptr;
std::atomic<long> g_left = 0; ///< calls until the one that fails
std::atomic<bool> g_forGood = false;

bool fails(const char* call) {
    const char* const armed = g_call;
    if (!t_product || armed == nullptr || std::strcmp(armed, call) != 0) return false;
    const long left = --g_left;
    if (left > 0 || (left < 0 && !g_forGood)) return false;
    errno = EIO;
    return true;
}

} // namespace

void arm(const char* call, long n, bool forGood) {
    g_call = nullptr;
    g_left = n;
    g_forGood = forGood;
    g_call = call;
}

bool disarm() {
    g_call = nullptr;
    return g_left <= 0;
}

} // namespace failing

using failing::fails;

// Each takes the C library's place by its name in the object file; behind it runs what would run otherwise.
#define IN_PLACE_OF(name, call, result, parameters, arguments)                                               \
    extern "C" result failing_##name parameters asm(#name);                                                  \
    result failing_##name parameters {                                                                       \
        static const auto real = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name));            \
        return fails(call) ? (result)-1L : real arguments;                                                   \
    }

IN_PLACE_OF(open64, "open", int, (const char* path, int flags, unsigned mode), (path, flags, mode))
IN_PLACE_OF(pread64, "pread", long, (int file, void* to, size_t size, long long at), (file, to, size, at))
IN_PLACE_OF(shmget, "shmget", int, (int key, size_t size, int flags), (key, size, flags))
IN_PLACE_OF(shmat, "shmat", void*, (int id, const void* at, int flags), (id, at, flags))
IN_PLACE_OF(semget, "semget", int, (int key, int count, int flags), (key, count, flags))
IN_PLACE_OF(semop, "semop", int, (int id, void* steps, size_t count), (id, steps, count))
IN_PLACE_OF(semtimedop, "semop", int, (int id, void* steps, size_t n, const void* t), (id, steps, n, t))
IN_PLACE_OF(__semtimedop64, "semop", int, (int id, void* steps, size_t n, const void* t), (id, steps, n, t))
IN_PLACE_OF(daemon, "daemon", int, (int keepDirectory, int keepStreams), (keepDirectory, keepStreams))
IN_PLACE_OF(sigaction, "sigaction", int, (int signal, const void* to, void* old), (signal, to, old))
IN_PLACE_OF(kill, "kill", int, (int pid, int signal), (pid, signal))
IN_PLACE_OF(close, "close", int, (int file), (file))
IN_PLACE_OF(unlink, "unlink", int, (const char* path), (path))

// The product's own calls alone, by the linker's --wrap, and what comes of them: each thread is a sanitizer's
// matter too.
extern "C" int __real_pthread_create(void*, const void*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(void* thread, const void* with, void* (*run)(void*), void* argument) {
    return fails("pthread_create") ? EIO : __real_pthread_create(thread, with, run, argument);
}
extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size) {
    return fails(size < 1'000'000 ? "malloc" : "large malloc") ? nullptr : __real_malloc(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return __wrap_malloc(size);
}
void* operator new(size_t size) {
    void* memory = operator new(size, std::nothrow);
    if (!memory) throw std::bad_alloc();
    return memory;
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
