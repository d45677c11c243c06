// Counts this program's allocations, thread by thread.
#include <cstdlib>
#include <new>

#include "tests/stream/stream_fixture.h"

thread_local long test::allocations = 0;

void* operator new(size_t bytes) {
    ++test::allocations;
    if (void* memory = std::malloc(bytes)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
