// Times of items.

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

// Where a volume keeps whole seconds, two changes in one second look alike. Waits until the second of the last change
// is over, so that any later one shows. At once false, if it is over or the volume keeps fractions: a change time can't
// be set, and its fraction is never 0 there. A change that is ahead by more than a second is another machine's.
bool OutlastSecond(const struct timespec &changed);

} // namespace platform
