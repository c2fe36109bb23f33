// See typed_time.h.

#include "typed_time.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <map>
#include <regex>

static constexpr time_t kDay = 86'400;

using Clock = TypedTime::Clock;

static time_t _LocalOffset(time_t time)
{
    struct tm local {};
    return localtime_r(&time, &local) ? local.tm_gmtoff : 0;
}

// Where the local clock shows these parts. They need not be in their ranges.
static TypedTime _FromLocal(struct tm parts)
{
    const time_t shown = timegm(&parts);
    const time_t byOld = shown - _LocalOffset(shown - kDay), byNew = shown - _LocalOffset(shown + kDay);
    const bool isByOld = byOld + _LocalOffset(byOld) == shown, isByNew = byNew + _LocalOffset(byNew) == shown;
    const auto first = static_cast<double>(isByNew && !isByOld ? byNew : byOld);
    if (isByOld && isByNew && byOld < byNew) return {first, static_cast<double>(byNew), Clock::Twice};
    return {first, first, isByOld || isByNew ? Clock::Plain : Clock::Skipped};
}

// The calendar would make a day in March of February 31.
static bool _IsDay(const struct tm &given)
{
    struct tm parts = given;
    (void)timegm(&parts);
    return parts.tm_mon == given.tm_mon && parts.tm_mday == given.tm_mday;
}

// "Z", "+01", "+0100", "-03:30": seconds east of UTC. None if there is no such zone.
static std::optional<time_t> _ZoneOffset(const std::string &zone)
{
    if (zone == "Z" || zone == "z") return 0;
    const int hours = std::stoi(zone.substr(1, 2)),
              minutes = zone.size() > 3 ? std::stoi(zone.substr(zone.size() - 2)) : 0;
    if (hours > 23 || minutes > 59) return std::nullopt;
    return (zone[0] == '-' ? -60 : 60) * (hours * 60 + minutes);
}

// The same time, with `seconds` added, and up to where the next one of its precision begins.
static TypedTime _Lasting(TypedTime time, double seconds, double precision)
{
    time.first += seconds;
    time.last = std::nextafter(time.last + seconds + precision, time.first);
    return time;
}

static double _PrecisionOf(const std::string &fraction) // ".25"
{
    return fraction.empty() ? 1 : std::pow(10, 1 - static_cast<double>(fraction.size()));
}

std::optional<TypedTime> ParseDate(const std::string &text)
{
    // Names of generations have "-" where times have ":".
    static const std::regex form("(\\d{4})-(\\d\\d?)-(\\d\\d?)"
                                 "(?:[T ](\\d\\d?)([:.-])(\\d\\d)(?:\\5(\\d\\d)(\\.\\d{1,9})?)?)?"
                                 "(?: ?([Zz]|[+-]\\d\\d(?::?\\d\\d)?))?");
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
    const std::string zone = match[9];
    if (!match[4].matched && !zone.empty() && zone != "Z" && zone != "z")
        return std::nullopt; // a sign behind a day is a slip

    TypedTime time;
    if (!zone.empty()) {
        const auto offset = _ZoneOffset(zone);
        if (!offset) return std::nullopt;
        time.first = time.last = static_cast<double>(timegm(&minute) - *offset);
    } else {
        time = _FromLocal(minute);
    }
    if (match[4].matched) {
        const double fraction = match[8].matched ? std::stod("0" + match[8].str()) : 0;
        return _Lasting(time, second + fraction, match[7].matched ? _PrecisionOf(match[8]) : 60);
    }
    // A day may have 23 hours, or 25, and which moment begins it is plain.
    ++day.tm_mday;
    const double next = !zone.empty() ? time.first + kDay : _FromLocal(day).first;
    return TypedTime{time.first, std::nextafter(next, time.first)};
}

struct Unit {
    double seconds;          // that pass, or 0 for a unit of the calendar:
    int tm::*part = nullptr; // what that changes,
    int count = 0;           // and by how much
};

static const Unit &_UnitOf(const std::string &name)
{
    static const Unit hour{3600}, day{0, &tm::tm_mday, 1}, week{0, &tm::tm_mday, 7}, month{0, &tm::tm_mon, 1},
        year{0, &tm::tm_year, 1};
    static const std::map<std::string, Unit> units = {
        {"second", {1}}, {"minute", {60}}, {"hour", hour}, {"day", day}, {"week", week}, {"month", month},
        {"year", year},  {"h", hour},      {"d", day},     {"w", week},  {"m", month},   {"y", year},
    };
    return units.at(name);
}

static int _LastDayOfMonth(int year, int month)
{
    struct tm parts {};
    parts.tm_year = year;
    parts.tm_mon = month + 1; // the day before its first
    (void)timegm(&parts);
    return parts.tm_mday;
}

// By units of the calendar, the clock shows the same as now. A month that has no such day gives one of the next month,
// or with `isEarly` its own last day.
static std::optional<TypedTime> _Before(double now, int count, const Unit &unit, bool isEarly = false)
{
    if (!unit.part) return TypedTime{now - count * unit.seconds, now - count * unit.seconds};
    const double whole = std::floor(now);
    const auto seconds = static_cast<time_t>(whole);
    struct tm parts {};
    if (!localtime_r(&seconds, &parts)) return std::nullopt;
    parts.*unit.part -= count * unit.count;
    if (isEarly && unit.part != &tm::tm_mday)
        parts.tm_mday = std::min(parts.tm_mday, _LastDayOfMonth(parts.tm_year, parts.tm_mon));
    TypedTime time = _FromLocal(parts);
    time.first += now - whole;
    time.last += now - whole;
    return time;
}

static std::string _DayBefore(double now, int days)
{
    const auto seconds = static_cast<time_t>(std::floor(now));
    struct tm parts {};
    char text[32];
    if (!localtime_r(&seconds, &parts)) return "";
    parts.tm_mday -= days;
    (void)timegm(&parts);
    return strftime(text, sizeof text, "%Y-%m-%d", &parts) ? text : "";
}

std::optional<TypedTime> ParseTime(const std::string &text, double now)
{
    static const std::regex ago("(\\d{1,6}|an?) (second|minute|hour|day|week|month|year)s? ago");
    static const std::regex day("(today|yesterday)((?:[T ]\\d\\d?:\\d\\d(?::\\d\\d)?)?)");
    static const std::regex since1970("@(-?\\d{1,12})(\\.\\d{1,9})?");
    std::smatch match;
    if (text == "now") return TypedTime{now, now};
    if (std::regex_match(text, match, day))
        return ParseDate(_DayBefore(now, match[1] == "today" ? 0 : 1) + match[2].str());
    if (std::regex_match(text, match, ago))
        return _Before(now, match[1].str()[0] == 'a' ? 1 : std::stoi(match[1]), _UnitOf(match[2]));
    if (!std::regex_match(text, match, since1970)) return ParseDate(text);
    const double time = std::stod(match[1].str() + match[2].str());
    return _Lasting({time, time}, 0, _PrecisionOf(match[2]));
}

std::optional<double> BeginningOfSpan(const std::string &text, double now)
{
    static const std::regex form("(?:\\d{1,6}[hdwmy]){1,5}"), part("(\\d+)([hdwmy])");
    if (!std::regex_match(text, form)) return std::nullopt;
    for (std::sregex_iterator match(text.begin(), text.end(), part), end; match != end; ++match) {
        const auto time = _Before(now, std::stoi((*match)[1]), _UnitOf((*match)[2]), /*isEarly=*/true);
        if (!time) return std::nullopt;
        now = time->first;
    }
    return now;
}
