// Comparing times of items.

#pragma once

#include <ctime>

namespace platform {

inline bool IsSameTime(const struct timespec &a, const struct timespec &b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

inline bool IsBefore(const struct timespec &a, const struct timespec &b)
{
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

} // namespace platform
