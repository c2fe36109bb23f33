// See times.h.

#include "times.h"

#include <cmath>
#include <cstdio>
#include <regex>

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
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::string result = text;
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

static double _Seconds(struct tm parts, bool utc)
{
    parts.tm_isdst = -1;
    return static_cast<double>(utc ? timegm(&parts) : mktime(&parts));
}

// The calendar would make a day in March of February 31.
static bool _IsDay(const struct tm &given)
{
    struct tm parts = given;
    (void)timegm(&parts);
    return parts.tm_mon == given.tm_mon && parts.tm_mday == given.tm_mday;
}

std::optional<double> ParseTime(const std::string &text, Moment moment)
{
    // Names of generations have "-" where times have ":".
    static const std::regex form("(\\d{4})-(\\d\\d?)-(\\d\\d?)"
                                 "(?:[T ](\\d\\d?)([:.-])(\\d\\d)(?:\\5(\\d\\d)(\\.\\d{1,9})?)?)?(Z?)");
    std::smatch match;
    if (!std::regex_match(text, match, form)) return std::nullopt;
    const auto number = [&](size_t group) { return match[group].matched ? std::stoi(match[group]) : 0; };
    struct tm day {};
    day.tm_year = number(1) - 1900;
    day.tm_mon = number(2) - 1;
    day.tm_mday = number(3);
    struct tm minute = day;
    minute.tm_hour = number(4);
    minute.tm_min = number(6);
    const int second = number(7); // 60 in a leap second
    if (!_IsDay(day) || minute.tm_hour > 23 || minute.tm_min > 59 || second > 60) return std::nullopt;

    const bool utc = match[9].length() > 0;
    const double fraction = match[8].matched ? std::stod("0" + match[8].str()) : 0;
    const double first = _Seconds(minute, utc) + second + fraction;
    if (moment == Moment::First) return first;
    ++day.tm_mday; // a day may have 23 hours, or 25
    const double next = match[8].matched   ? first + std::pow(10, 1 - static_cast<double>(match[8].length()))
                        : match[7].matched ? first + 1
                        : match[4].matched ? first + 60
                                           : _Seconds(day, utc);
    return std::nextafter(next, first);
}
