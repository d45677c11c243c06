// fuzz/: what reaches the daemon from outside, made by a fuzzer. Each program has one target; built with
// clang and TAVIRN_FUZZ they search for themselves, otherwise they run the files they are given.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

/// The fuzzer's bytes, taken from the front. Once they have run out everything is 0.
class Input {
public:
    Input(const uint8_t* data, size_t size) : m_left(reinterpret_cast<const char*>(data), size) {}

    bool empty() const { return m_left.empty(); }
    std::string text(size_t length) {
        const std::string taken(m_left.substr(0, length));
        m_left.remove_prefix(taken.size());
        return taken;
    }
    template <class Number> Number take() {
        Number number = 0;
        m_left.remove_prefix(m_left.copy(reinterpret_cast<char*>(&number), sizeof number));
        return number;
    }
    uint8_t byte() { return take<uint8_t>(); }
    /// Mostly small, and sometimes anything.
    uint32_t number() {
        const uint8_t first = byte();
        return first == 0xFF ? take<uint32_t>() : first;
    }

private:
    std::string_view m_left;
};

/// A promise that was not kept.
inline void require(bool condition) {
    if (!condition) std::abort();
}
