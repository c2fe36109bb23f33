// Times, as they are printed. All are seconds since 1970, with their fraction.

#pragma once

#include <ctime>
#include <string>

// With its fraction, so that generations kept within a second are listed in order.
double PresentTime();
double ToSeconds(const struct timespec &time);

// For programs: UTC, with as many digits of the second as it needs; "" for a number that is not a time.
std::string IsoTime(double secondsSince1970);

// For people: local time, "2026-03-01 10:15:30"; "-" for a number that is not a time.
std::string HumanTime(double secondsSince1970);

// How far local time is from UTC then: "+0100".
std::string ZoneAt(double secondsSince1970);
