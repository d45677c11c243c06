// Counts this program's allocations, thread by thread.
#include <cstdlib>
#include <new>

#include "tests/stream/stream_fixture.h"

thread_local long test::allocations = 0;

// Every form in use, so that sanitizers see no block that one of theirs made and one of these frees.
void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
    ++test::allocations;
    return std::malloc(bytes);
}
void* operator new(size_t bytes) {
    if (void* memory = operator new(bytes, std::nothrow)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
