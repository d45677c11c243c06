// What the tour tells a person: a line for each request, and which pictures go onto the contact sheet.
#pragma once

#include <string>
#include <vector>

#include "tools/tour/judge.h"

void printHeading(const std::string& title);
void printTableHead();

/// A line of the table; `asked` in seconds.
void printLine(double asked, const std::string& request, const std::string& status, const std::string& times,
               const std::string& remark);

/// "03:04:05.250"
std::string timeOfDay(uint64_t ms);

/// The clock times of the first and the last picture; empty for none.
std::string timesOf(const Came& came);

struct Caption {
    size_t picture; ///< of those that came, from 0 on
    std::string text;
};

/// Which of the pictures are worth looking at: all when they are few; otherwise the first, the last, and both
/// sides of a border that was played across.
std::vector<Caption> captionsOf(const Came& came, const std::string& request);
