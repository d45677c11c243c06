// A whole session against the rooted daemon, in a line each.
#pragma once

#include <algorithm>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

#include "platform/paths.h"
#include "tests/support/process.h"
#include "tests/support/world.h"
#include "tools/client/control_client.h"

namespace test {

/// What the viewer's side asks of the daemon in the world that paths() names.
class Viewer {
public:
    explicit Viewer(const std::string& sessionNumber = "1") : m_number(sessionNumber) {}

    OpenAnswer open() { return readOpenAnswer(ask(ControlRequest(RTSP_REQ_OPEN))); }
    void registerSession() { ask(ours(RTSP_REQ_SESSION)); }
    void play() { ask(ours(RTSP_REQ_PLAY)); }
    void play(const std::string& header, const std::string& value) {
        ask(ours(RTSP_REQ_PLAY).with(header, value));
    }
    void pause() { ask(ours(RTSP_REQ_PAUSE)); }
    void teardown() { ask(ours(RTSP_REQ_TEARDOWN)); }
    std::string status() { return readStatusAnswer(ask(ours(RTSP_REQ_STATUS))); }

    std::string ask(const ControlRequest& request) {
        const auto answer = exchange(paths().controlSocket, request.record);
        EXPECT_TRUE(answer) << "the daemon does not answer";
        return answer.value_or("");
    }

private:
    ControlRequest ours(int32_t type) { return std::move(ControlRequest(type).with("Session", m_number)); }

    std::string m_number;
};

/// Starts a tool from a line as a person would type it: "ctl", "view", "record", or "pattern" for a small
/// test pattern's recording. A "@" that begins a word is the world's directory, "_" a space, "''" an empty
/// word.
inline Process startTool(const World& world, const std::string& line) {
    std::istringstream typed(line);
    std::string tool, word;
    typed >> tool;
    std::vector<std::string> words{tool == "ctl" ? TAVIRN_CTL : tool == "view" ? TAVIRN_VIEW : TAVIRN_RECORD};
    if (tool == "pattern") words.insert(words.end(), {"--test-pattern", "--size", "160x120"});
    while (typed >> word) {
        if (word == "''") word.clear();
        std::replace(word.begin(), word.end(), '_', ' ');
        if (word.starts_with('@')) word.replace(0, 1, world.root());
        words.push_back(word);
    }
    return {words, world.root()};
}

} // namespace test
