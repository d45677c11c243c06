// What tavirn-record tells a person or a script: progress while it works, a summary at the end.
#pragma once

#include "tools/record/recorder.h"

/// One line on standard error: rewritten in place on a terminal, else a new one every few seconds.
class ProgressLine {
public:
    void show(const RecordingProgress& progress);
    /// Leaves the terminal's line.
    void end();

private:
    bool m_shown = false;
    uint64_t m_lastMs = 0;
};

/// On standard output.
void printSummary(const RecordingReport& report, const MediaInfo& info);
void printJson(const RecordingReport& report, const MediaInfo& info);
