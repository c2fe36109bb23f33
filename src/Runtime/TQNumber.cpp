// Numbers and booleans: kept as they were given, compared by value.

#include "Runtime/ByteHash.h"
#include "Runtime/Number.h"

#include <bit>
#include <charconv>
#include <cmath>

namespace {

constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

// Whether `real` is exactly the integer that `number` holds. The integer is never converted to a double, which may
// round it: 2^53 + 1 would be 2^53.
bool _IsInteger(double real, const TQNumber *number)
{
    if (number->numberKind == kTQNumberInt64)
        return real >= -kTwoTo63 && real < kTwoTo63 && std::trunc(real) == real &&
               static_cast<int64_t>(real) == number->int64;
    return real >= kTwoTo63 && real < kTwoTo64 && static_cast<uint64_t>(real) == number->uint64;
}

bool _EqualNumbers(const Object *a, const Object *b, const Comparison *)
{
    const auto *first = static_cast<const TQNumber *>(a);
    const auto *second = static_cast<const TQNumber *>(b);
    const bool firstReal = first->numberKind == kTQNumberDouble;
    const bool secondReal = second->numberKind == kTQNumberDouble;
    if (firstReal && secondReal)
        // Not-a-number equals itself, so that it can be found again in a set.
        return !(first->real < second->real || first->real > second->real) &&
               std::isnan(first->real) == std::isnan(second->real);
    if (firstReal) return _IsInteger(first->real, second);
    if (secondReal) return _IsInteger(second->real, first);
    return first->numberKind == second->numberKind && first->uint64 == second->uint64;
}

uintptr_t _HashNumber(const Object *object, size_t)
{
    const auto *number = static_cast<const TQNumber *>(object);
    if (number->numberKind != kTQNumberDouble) return HashInteger(number->uint64);
    const double real = number->real;
    // A double that some integer equals hashes as that integer does.
    if (real >= -kTwoTo63 && real < kTwoTo63 && std::trunc(real) == real)
        return HashInteger(static_cast<uint64_t>(static_cast<int64_t>(real)));
    if (real >= kTwoTo63 && real < kTwoTo64) return HashInteger(static_cast<uint64_t>(real));
    return HashInteger(std::isnan(real) ? ~uint64_t{0} : std::bit_cast<uint64_t>(real));
}

void _DescribeNumber(const Object *object, Description &description)
{
    const auto *number = static_cast<const TQNumber *>(object);
    char buffer[64];
    const auto end = [&] {
        if (number->numberKind == kTQNumberInt64) return std::to_chars(buffer, std::end(buffer), number->int64).ptr;
        if (number->numberKind == kTQNumberUInt64) return std::to_chars(buffer, std::end(buffer), number->uint64).ptr;
        return std::to_chars(buffer, std::end(buffer), number->real).ptr;
    }();
    description.Append(buffer, static_cast<size_t>(end - buffer));
}

void _DescribeBoolean(const Object *object, Description &description)
{
    description.Append(static_cast<const TQBoolean *>(object)->value ? "true" : "false");
}

constexpr Kind kNumberKind = {kTypeNumber, "number", false, nullptr, _EqualNumbers, _HashNumber, _DescribeNumber};
constexpr Kind kBooleanKind = {kTypeBoolean, "boolean", false, nullptr, nullptr, nullptr, _DescribeBoolean};

constinit TQBoolean trueValue{&kBooleanKind, true};
constinit TQBoolean falseValue{&kBooleanKind, false};

// Calls `use` with what a number or a boolean holds, as one of its three types; 0 for anything else.
template <class Use> auto _WithValue(const TQValue *value, Use use)
{
    if (IsKind(value, kTypeBoolean)) return use(int64_t{static_cast<const TQBoolean *>(value)->value});
    if (!IsKind(value, kTypeNumber)) return use(int64_t{0});
    const auto *number = static_cast<const TQNumber *>(value);
    if (number->numberKind == kTQNumberInt64) return use(number->int64);
    if (number->numberKind == kTQNumberUInt64) return use(number->uint64);
    return use(number->real);
}

struct ToInt64 {
    int64_t operator()(int64_t value) const { return value; }
    int64_t operator()(uint64_t) const { return INT64_MAX; }
    int64_t operator()(double value) const
    {
        if (std::isnan(value)) return 0;
        if (value < -kTwoTo63) return INT64_MIN;
        return value >= kTwoTo63 ? INT64_MAX : static_cast<int64_t>(value);
    }
};

struct ToUInt64 {
    uint64_t operator()(int64_t value) const { return value < 0 ? 0 : static_cast<uint64_t>(value); }
    uint64_t operator()(uint64_t value) const { return value; }
    uint64_t operator()(double value) const
    {
        if (std::isnan(value) || value < 0) return 0;
        return value >= kTwoTo64 ? UINT64_MAX : static_cast<uint64_t>(value);
    }
};

} // namespace

TQBoolean *const kTQBooleanTrue = &trueValue;
TQBoolean *const kTQBooleanFalse = &falseValue;

TQNumber::TQNumber(int64_t value) noexcept : Object(&kNumberKind), numberKind(kTQNumberInt64), int64(value) {}
TQNumber::TQNumber(uint64_t value) noexcept : Object(&kNumberKind), numberKind(kTQNumberUInt64), uint64(value) {}
TQNumber::TQNumber(double value) noexcept : Object(&kNumberKind), numberKind(kTQNumberDouble), real(value) {}

TQTypeID TQNumberGetTypeID(void)
{
    return kTypeNumber;
}

TQTypeID TQBooleanGetTypeID(void)
{
    return kTypeBoolean;
}

TQNumber *TQNumberCreateInt64(int64_t value)
{
    return MakeObject<TQNumber>(nullptr, 0, value);
}

TQNumber *TQNumberCreateUInt64(uint64_t value)
{
    if (value <= INT64_MAX) return TQNumberCreateInt64(static_cast<int64_t>(value));
    return MakeObject<TQNumber>(nullptr, 0, value);
}

TQNumber *TQNumberCreateDouble(double value)
{
    return MakeObject<TQNumber>(nullptr, 0, value);
}

bool TQIsNumber(const TQValue *value)
{
    return IsKind(value, kTypeNumber) || IsKind(value, kTypeBoolean);
}

TQNumberKind TQNumberGetKind(const TQNumber *number)
{
    // A boolean may stand where a number is asked for, and counts as the integer 0 or 1.
    return IsKind(number, kTypeNumber) ? number->numberKind : kTQNumberInt64;
}

int64_t TQNumberGetInt64(const TQValue *number)
{
    return _WithValue(number, ToInt64());
}

uint64_t TQNumberGetUInt64(const TQValue *number)
{
    return _WithValue(number, ToUInt64());
}

double TQNumberGetDouble(const TQValue *number)
{
    return _WithValue(number, [](auto value) { return static_cast<double>(value); });
}

bool TQNumberGetTruth(const TQValue *number)
{
    return _WithValue(number, [](auto value) { return value != 0; });
}

TQBoolean *TQBooleanGet(bool value)
{
    return value ? kTQBooleanTrue : kTQBooleanFalse;
}
