// Times, as they are printed and as users type them. All are seconds since 1970, with their fraction.

#pragma once

#include <ctime>
#include <optional>
#include <string>

// With its fraction, so that generations kept within a second are listed in order.
double PresentTime();
double ToSeconds(const struct timespec &time);

// For programs: UTC, with as many digits of the second as it needs; "" for a number that is not a time.
std::string IsoTime(double secondsSince1970);

// For people: local time, "2026-03-01 10:15:30"; "-" for a number that is not a time.
std::string HumanTime(double secondsSince1970);

// Which moment a typed time stands for, within the day, the minute, the second or the part of one that it names.
enum class Moment { First, Last };

// "2026-03-01", "2026-03-01 10:15", "2026-03-01T10:15:30.25Z": local time unless it ends in "Z". None if it can't be
// parsed, or the calendar has no such day.
std::optional<double> ParseTime(const std::string &text, Moment moment);
