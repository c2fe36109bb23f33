// Times: what they are printed as, and what users type for them. All are seconds since 1970, with their fraction.

#pragma once

#include <ctime>
#include <optional>
#include <string>

// With its fraction, so that what is kept within a second is listed in its order.
double PresentTime();
double ToSeconds(const struct timespec &time);

// For programs: UTC, with as many digits of the second as it needs; "" for what is no time.
std::string IsoTime(double secondsSince1970);

// For people: local time, "2026-03-01 10:15:30"; "-" for what is no time.
std::string HumanTime(double secondsSince1970);

// What a time stands for that was given no more exactly than to the day, the minute, the second, or a part of it.
enum class Moment { First, Last };

// "2026-03-01", "2026-03-01 10:15", "2026-03-01T10:15:30.25Z": local time unless it ends in "Z". None if it can't
// be read, or the calendar has no such day.
std::optional<double> ParseTime(const std::string &text, Moment moment);
