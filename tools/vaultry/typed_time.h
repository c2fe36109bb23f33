// Times as users type them.

#pragma once

#include <optional>
#include <string>

// What a typed time stands for: the day, the minute, the second or the part of one that it names, from its first to its
// last moment, in seconds since 1970.
struct TypedTime {
    // Where clocks are put back, an hour comes twice, and the time stands for both and all that is between them. Where
    // they are put forward, one is skipped, and the time is as much later as the clocks are.
    enum class Clock { Plain, Twice, Skipped };

    double first = 0, last = 0;
    Clock clock = Clock::Plain;
};

// "2026-03-01", "2026-03-01 10:15", "2026-03-01T10:15:30.25Z", "2026-03-01 10:15 +01:00": local time unless a zone ends
// it. None if it is of another form, or the calendar has no such day.
std::optional<TypedTime> ParseDate(const std::string &text);

// The same, or "now", "today", "yesterday 10:15", "2 hours ago", "@1767225600". Days and longer units go by the local
// calendar as mktime counts them: a month before March 31 it is March 3.
std::optional<TypedTime> ParseTime(const std::string &text, double now);

// How long ago a span like "36h", "30d" or "1y6m" began: hours, days, weeks, months and years, counted in the
// same way, but never too short: a month before March 31 begins on the last day of February.
std::optional<double> BeginningOfSpan(const std::string &text, double now);
