// The byte examples of docs/ are built by tests, so that pages and code cannot drift apart. An example is a
// fenced block that opens with "```bytes NAME"; each line is an offset in decimal, the bytes from there on in
// hexadecimal, and behind "|" what they say. Bytes that no line gives are zero.
#pragma once

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

#include "tests/support/world.h"

namespace test {

/// The example's bytes, `size` of them; fails the test when the page has no such example.
inline std::string exampleBytes(const std::string& page, const std::string& name, size_t size) {
    std::ifstream file(TAVIRN_DOCS "/" + page);
    std::string line, bytes(size, '\0');
    while (std::getline(file, line) && line != "```bytes " + name) continue;
    EXPECT_TRUE(file) << page << " has no example '" << name << "'";
    while (std::getline(file, line) && line != "```") {
        std::istringstream text(line.substr(0, line.find('|')));
        size_t offset = 0;
        text >> offset >> std::hex;
        for (unsigned value; text >> value; ++offset) bytes.at(offset) = static_cast<char>(value);
        EXPECT_TRUE(text.eof()) << page << ": " << line;
    }
    return bytes;
}

} // namespace test
