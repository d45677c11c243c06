// One playback session as a client of the daemon sees it: asks on the control channel, and keeps all that
// comes out of the output memory.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "platform/output_reader.h"
#include "tools/client/control_client.h"
#include "tools/tour/judge.h"
#include "tools/view/view_stats.h"

class Session {
public:
    /// Opens a session, registers its number and begins to read with its first block; false when the daemon
    /// refuses. Throws Failure, as everything here does, when the daemon does not answer or dies.
    bool open();
    /// A request of this session, with at most one header line more; the answer's bytes.
    std::string ask(int32_t type, const std::string& header = "", const std::string& value = "");
    /// The daemon's word; `number` 0: a request that names none.
    static std::string status(unsigned number = kNumber);

    /// Reads on until there is `enough`; false when that is not so in time.
    bool readUntil(std::chrono::milliseconds atMost, const std::function<bool()>& enough);
    /// The last request has been taken, and playback rests: PAUSE blocks alone come.
    bool isQuiet() const;
    /// The output memory has told the session's end.
    bool hasEnded() const { return m_ended; }

    const std::vector<ShownPicture>& pictures() const { return m_pictures; }
    std::vector<ShownPicture>& pictures() { return m_pictures; } ///< for whoever finds their places
    ViewReport report() const { return m_stats.report(); }

private:
    static constexpr unsigned kNumber = 1;
    using Clock = std::chrono::steady_clock;

    void take(std::optional<Clock::time_point> arrival);

    OutputReader m_reader;
    OutputBlock m_block;
    ViewStats m_stats;
    std::vector<ShownPicture> m_pictures;
    unsigned m_blocks = 0; ///< since the last request
    unsigned m_pausesInARow = 0;
    bool m_ended = false;
};
