#include "Runtime/ByteHash.h"
#include "Runtime/Date.h"

#include <bit>
#include <cmath>
#include <ctime>

namespace {

bool _EqualDates(const Object *a, const Object *b, const Comparison *)
{
    const double first = static_cast<const TQDate *>(a)->since2001;
    const double second = static_cast<const TQDate *>(b)->since2001;
    return !(first < second || first > second) && std::isnan(first) == std::isnan(second);
}

uintptr_t _HashDate(const Object *object, size_t)
{
    const double seconds = static_cast<const TQDate *>(object)->since2001;
    if (std::isnan(seconds)) return HashInteger(~uint64_t{0});
    return HashInteger(std::bit_cast<uint64_t>(seconds + 0.0)); // -0.0 and 0.0 are one date
}

void _DescribeDate(const Object *object, Description &description)
{
    const double seconds = static_cast<const TQDate *>(object)->sinceUnix;
    constexpr double kFourDigitYears = 253402300800; // to the end of the year 9999
    if (!(seconds >= -kFourDigitYears / 4 && seconds < kFourDigitYears))
        return description.AppendFormat("%g seconds since 1970", seconds);
    const auto whole = static_cast<time_t>(std::floor(seconds));
    tm civil{};
    (void)gmtime_r(&whole, &civil);
    char text[64];
    description.Append(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &civil));
}

constexpr Kind kDateKind = {kTypeDate, "date", false, nullptr, _EqualDates, _HashDate, _DescribeDate};

} // namespace

TQDate::TQDate(double from1970, double from2001) noexcept : Object(&kDateKind), sinceUnix(from1970), since2001(from2001)
{
}

TQDate *MakeDateSince2001(double seconds)
{
    return MakeObject<TQDate>(nullptr, 0, seconds + TQDate::kSecondsTo2001, seconds);
}

TQTypeID TQDateGetTypeID(void)
{
    return kTypeDate;
}

TQDate *TQDateCreate(double seconds)
{
    return MakeObject<TQDate>(nullptr, 0, seconds, seconds - TQDate::kSecondsTo2001);
}

double TQDateGetSeconds(const TQDate *date)
{
    const TQDate *given = As(date);
    return given ? given->sinceUnix : 0;
}
