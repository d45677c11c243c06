// No header that declares the calls may be included: with 64-bit offsets and times they rename them.
#include "tests/system_calls/failing_calls.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <malloc.h>
#include <new>
#include <sqlite3.h>

namespace failing {
namespace {

std::atomic<Call> g_call = kNone;
std::atomic<long> g_left = 0; ///< calls until the one that fails
std::atomic<bool> g_forGood = false;
thread_local bool t_test = false;

bool fails(Call call) {
    if (g_call != call || t_test) return false;
    const long left = --g_left;
    return left == 0 || (left < 0 && g_forGood);
}

int failed(int error) {
    errno = error;
    return -1;
}

} // namespace

void arm(Call call, long n, bool forGood) {
    g_call = kNone;
    g_left = n;
    g_forGood = forGood;
    g_call = call;
}
bool reached() {
    return g_left <= 0;
}
Product::Product() {
    t_test = false;
}
Product::~Product() {
    t_test = true;
}
void ownThread() {
    t_test = true;
}

} // namespace failing

using namespace failing;

// Each takes the C library's place by its name in the object file. `real` is what runs otherwise: the
// library's.
#define IN_PLACE_OF(name, result, ...)                                                                       \
    extern "C" result failing_##name(__VA_ARGS__) asm(#name);                                                \
    static result (*real_##name())(__VA_ARGS__) {                                                            \
        static const auto real = reinterpret_cast<result (*)(__VA_ARGS__)>(dlsym(RTLD_NEXT, #name));         \
        return real;                                                                                         \
    }                                                                                                        \
    extern "C" result failing_##name(__VA_ARGS__)

IN_PLACE_OF(open, int, const char* path, int flags, unsigned mode) {
    return fails(kOpen) ? failed(EMFILE) : real_open()(path, flags, mode);
}
IN_PLACE_OF(open64, int, const char* path, int flags, unsigned mode) {
    return fails(kOpen) ? failed(EMFILE) : real_open64()(path, flags, mode);
}
IN_PLACE_OF(pread, long, int file, void* buffer, size_t length, long offset) {
    return fails(kPread) ? failed(EIO) : real_pread()(file, buffer, length, offset);
}
IN_PLACE_OF(pread64, long, int file, void* buffer, size_t length, long long offset) {
    return fails(kPread) ? failed(EIO) : real_pread64()(file, buffer, length, offset);
}
IN_PLACE_OF(shmget, int, int key, size_t size, int flags) {
    return fails(kShmget) ? failed(ENOMEM) : real_shmget()(key, size, flags);
}
IN_PLACE_OF(shmat, void*, int id, const void* address, int flags) {
    return fails(kShmat) ? reinterpret_cast<void*>(long{failed(ENOMEM)}) : real_shmat()(id, address, flags);
}
IN_PLACE_OF(semget, int, int key, int count, int flags) {
    return fails(kSemget) ? failed(ENOSPC) : real_semget()(key, count, flags);
}
IN_PLACE_OF(semop, int, int id, void* operations, size_t count) {
    return fails(kSemop) ? failed(EIDRM) : real_semop()(id, operations, count);
}
IN_PLACE_OF(semtimedop, int, int id, void* operations, size_t count, const void* span) {
    return fails(kSemop) ? failed(EIDRM) : real_semtimedop()(id, operations, count, span);
}
IN_PLACE_OF(__semtimedop64, int, int id, void* operations, size_t count, const void* span) {
    return fails(kSemop) ? failed(EIDRM) : real___semtimedop64()(id, operations, count, span);
}
IN_PLACE_OF(socket, int, int domain, int type, int protocol) {
    return fails(kSocket) ? failed(EMFILE) : real_socket()(domain, type, protocol);
}
IN_PLACE_OF(bind, int, int file, const void* address, unsigned length) {
    return fails(kBind) ? failed(EADDRINUSE) : real_bind()(file, address, length);
}
IN_PLACE_OF(accept4, int, int file, void* address, void* length, int flags) {
    return fails(kAccept) ? failed(EMFILE) : real_accept4()(file, address, length, flags);
}
// A sanitizer that is linked in has to learn of each thread.
extern "C" __attribute__((weak)) int __interceptor_pthread_create(void*, const void*, void* (*)(void*),
                                                                  void*);
IN_PLACE_OF(pthread_create, int, void* thread, const void* attributes, void* (*run)(void*), void* argument) {
    if (fails(kThread)) return EAGAIN;
    if (__interceptor_pthread_create) return __interceptor_pthread_create(thread, attributes, run, argument);
    return real_pthread_create()(thread, attributes, run, argument);
}

extern "C" {
// The product's own malloc, by the linker's --wrap.
void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size) {
    return fails(kMalloc) ? nullptr : __real_malloc(size);
}
}

void* operator new(size_t size) {
    void* memory = __wrap_malloc(size);
    if (!memory) throw std::bad_alloc();
    return memory;
}
void* operator new[](size_t size) {
    return operator new(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return __wrap_malloc(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return __wrap_malloc(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, size_t) noexcept {
    std::free(memory);
}

// SQLite's, by its configuration. Before main, and so before its first use.
static const int g_sqlite = [] {
    static const sqlite3_mem_methods methods = {
        [](int size) { return fails(kSqliteMalloc) ? nullptr : __real_malloc(static_cast<size_t>(size)); },
        [](void* memory) { std::free(memory); },
        [](void* memory, int size) {
            return fails(kSqliteMalloc) ? nullptr : std::realloc(memory, static_cast<size_t>(size));
        },
        [](void* memory) { return static_cast<int>(malloc_usable_size(memory)); },
        [](int size) { return (size + 7) & ~7; },
        [](void*) { return SQLITE_OK; },
        [](void*) {},
        nullptr,
    };
    return sqlite3_config(SQLITE_CONFIG_MALLOC, &methods);
}();
