// See times.h.

#include "times.h"

#include <cmath>
#include <cstdio>

double ToSeconds(const struct timespec &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double PresentTime()
{
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    return ToSeconds(now);
}

std::string IsoTime(double secondsSince1970)
{
    const double whole = std::floor(secondsSince1970);
    const auto seconds = static_cast<time_t>(whole);
    struct tm utc {};
    char text[64];
    if (!std::isfinite(secondsSince1970) || std::fabs(whole) > 1e15 || !gmtime_r(&seconds, &utc)) return "";
    snprintf(text, sizeof text, "%04lld", 1900LL + utc.tm_year);
    std::string result = text;
    strftime(text, sizeof text, "-%m-%dT%H:%M:%S", &utc);
    result += text;
    snprintf(text, sizeof text, "%.6f", secondsSince1970 - whole);
    std::string fraction = text + 1; // ".250000"
    fraction.erase(fraction.find_last_not_of("0.") + 1);
    if (text[0] == '0') result += fraction;
    return result + "Z";
}

std::string HumanTime(double secondsSince1970)
{
    // Beyond these years the conversion is unreliable; not-a-number fails the comparison too.
    if (!(std::fabs(secondsSince1970) < 1e11)) return "-";
    const auto seconds = static_cast<time_t>(std::floor(secondsSince1970));
    struct tm local {};
    char text[64];
    if (!localtime_r(&seconds, &local) || !strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local)) return "-";
    return text;
}

std::string ZoneAt(double secondsSince1970)
{
    const auto seconds = static_cast<time_t>(std::floor(secondsSince1970));
    struct tm local {};
    char text[16];
    return localtime_r(&seconds, &local) && strftime(text, sizeof text, "%z", &local) ? text : "";
}
