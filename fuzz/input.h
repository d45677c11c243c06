// fuzz/: what reaches the daemon from outside, made by a fuzzer. Each program has one target; built with
// clang and TAVIRN_FUZZ they search for themselves, otherwise they run the files they are given.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

/// The fuzzer's bytes, taken from the front. Once they have run out everything is 0.
class Input {
public:
    Input(const uint8_t* data, size_t size) : m_next(data), m_end(data + size) {}

    bool empty() const { return m_next == m_end; }
    uint8_t byte() { return empty() ? uint8_t{0} : *m_next++; }
    uint32_t word() {
        uint32_t value = 0;
        for (int shift = 0; shift < 32; shift += 8) value |= uint32_t{byte()} << shift;
        return value;
    }
    /// Mostly small, and sometimes anything.
    uint32_t number() {
        const uint8_t first = byte();
        return first == 0xFF ? word() : first;
    }
    std::string text(size_t length) {
        const size_t left = static_cast<size_t>(m_end - m_next);
        const std::string taken(reinterpret_cast<const char*>(m_next), std::min(length, left));
        m_next += taken.size();
        return taken;
    }

private:
    const uint8_t* m_next;
    const uint8_t* m_end;
};

/// A promise that was not kept.
inline void require(bool condition) {
    if (!condition) std::abort();
}
