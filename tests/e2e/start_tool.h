// A tool's line, as a person would type it.
#pragma once

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/world.h"

namespace test {

/// Starts a tool from a line as a person would type it: "ctl", "view", "record", or "pattern" for a small
/// test pattern's recording. A "@" that begins a word is the world's directory, "_" a space.
inline Process startTool(const World& world, const std::string& line) {
    std::istringstream typed(line);
    std::string tool, word;
    typed >> tool;
    std::vector<std::string> words{tool == "ctl" ? TAVIRN_CTL : tool == "view" ? TAVIRN_VIEW : TAVIRN_RECORD};
    if (tool == "pattern") words.insert(words.end(), {"--test-pattern", "--size", "160x120"});
    while (typed >> word) {
        std::replace(word.begin(), word.end(), '_', ' ');
        if (word.starts_with('@')) word.replace(0, 1, world.root());
        words.push_back(word);
    }
    return {words, world.root()};
}

} // namespace test
