#pragma once

#include "tests/support/log_recorder.h"

/// What is in the log, as lines of "priority name() text": without the numbers of the code's lines.
inline std::string said(const test::LogRecorder& log) {
    std::string all;
    for (auto [priority, format, text] : log.lines()) {
        if (format.starts_with("%s(%d) "))
            text.erase(text.find('(') + 1, text.find(") ") - text.find('(') - 1);
        all += std::to_string(priority) + " " + text + "\n";
    }
    return all;
}
