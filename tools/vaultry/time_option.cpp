// See time_option.h.

#include "time_option.h"

#include "failure.h"
#include "text.h"
#include "times.h"
#include "typed_time.h"

#include <cmath>

static TypedTime _Parsed(const std::string &option, const std::string &text)
{
    const std::optional<TypedTime> time = ParseTime(text, PresentTime());
    if (time) return *time;
    throw CommandFailure(kExitUsage, option + " " + Quoted(text) +
                                         " is no time: one is 2026-03-01, \"2026-03-01 10:15\", yesterday, "
                                         "\"2 hours ago\" or @1767225600");
}

// Of an hour that comes twice, the first or the last may be meant.
static double _Told(const std::string &option, const std::string &text, const TypedTime &time, bool isLater,
                    double meant)
{
    if (time.clock == TypedTime::Clock::Twice)
        Say(option + " " + Quoted(text) + " comes twice, when clocks are put back: the " +
            (isLater ? "later" : "earlier") + " one is meant, " + ZoneAt(meant));
    if (time.clock == TypedTime::Clock::Skipped)
        Say(option + " " + Quoted(text) + " is skipped, when clocks are put forward: " + HumanTime(time.first) +
            " is meant");
    return meant;
}

double FirstMomentOf(const std::string &option, const std::string &text)
{
    const TypedTime time = _Parsed(option, text);
    return _Told(option, text, time, /*isLater=*/false, time.first);
}

double LastMomentOf(const std::string &option, const std::string &text)
{
    const TypedTime time = _Parsed(option, text);
    return _Told(option, text, time, /*isLater=*/true, time.last);
}

double LastMomentBefore(const std::string &option, const std::string &text)
{
    const TypedTime time = _Parsed(option, text);
    return _Told(option, text, time, /*isLater=*/false, std::nextafter(time.first, -INFINITY));
}
