// What is asked for on the tour: a row for each request, and what has to come of it.
#pragma once

#include <string>
#include <vector>

#include "tools/tour/judge.h"

/// A play request.
struct Step {
    std::string header;   ///< Jump, Step or Scale; empty: none
    std::string value;    ///< as tavirn-ctl takes it
    size_t pictures;      ///< paused after so many; 0: it shows something and pauses by itself
    std::string status;   ///< the daemon's word then
    Check check;          ///< what came out,
    int64_t expected = 0; ///< and the check's measure
    int restMs = 0;       ///< before it is asked for

    std::string text() const;        ///< as it is typed: play --jump oldest
    std::string headerValue() const; ///< as the daemon takes it
};

/// What the recorder of the three streams is told: gaps between them, and two alarms.
std::vector<std::string> recordedWords();

/// Through the three streams. Every request is made while paused, so that each picture belongs to one.
std::vector<Step> recordedSteps();
/// Behind the recorder of the fourth.
std::vector<Step> liveSteps();
