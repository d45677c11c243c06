#pragma once

#include <regex>
#include <string>

#include "tests/support/log_recorder.h"

/// What is in the log, as lines of "priority name() text": without the numbers of the code's lines.
inline std::string said(const test::LogRecorder& log) {
    return std::regex_replace(log.dump(), std::regex("\\(\\d+\\) "), "() ");
}
