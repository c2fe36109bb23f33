#include "Platform/Times.h"

#include "Platform/ErrnoKeeper.h"

namespace platform {

bool OutlastSecond(const struct timespec &changed)
{
    if (changed.tv_nsec != 0) return false;
    const ErrnoKeeper keeper;
    struct timespec now {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    if (changed.tv_sec < now.tv_sec || changed.tv_sec > now.tv_sec + 1) return false;
    const struct timespec next = {.tv_sec = changed.tv_sec + 1, .tv_nsec = 0};
    (void)clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &next, nullptr); // a signal only makes it shorter
    return true;
}

} // namespace platform
