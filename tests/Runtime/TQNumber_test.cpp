#include "Runtime/Values.h"

#include <cmath>
#include <limits>

TEST(Number, EqualityIsExactAcrossKinds)
{
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    // Each line holds values that differ from all others, or the forms of one value.
    const std::vector<std::vector<Value>> classes = {
        {Number(0), Number(0.0), Number(-0.0), Number(uint64_t{0})},
        {Number(1), Number(1.0), Number(uint64_t{1})},
        {Truth(true)},
        {Truth(false)},
        {Number(-1), Number(-1.0)},
        {Number(0.5)},
        {Number(int64_t{1} << 53), Number(9007199254740992.0)},
        {Number((int64_t{1} << 53) + 1)}, // as a double it would be the line above
        {Number(INT64_MAX)},
        {Number(uint64_t{1} << 63), Number(9223372036854775808.0)},
        {Number((uint64_t{1} << 63) + 1)},
        {Number(INT64_MIN), Number(-9223372036854775808.0)},
        {Number(UINT64_MAX)},
        {Number(18446744073709551616.0)},
        {Number(kInfinity)},
        {Number(-kInfinity)},
        {Number(std::nan("1")), Number(-std::nan("2"))},
        {Text("1")},
    };
    for (const auto &one : classes)
        for (const auto &other : classes)
            for (const Value &a : one)
                for (const Value &b : other) {
                    SCOPED_TRACE(Describe(a.get()) + " and " + Describe(b.get()));
                    EXPECT_EQ(TQEqual(a.get(), b.get()), &one == &other);
                    EXPECT_TRUE(&one != &other || TQHash(a.get()) == TQHash(b.get()));
                }
}

TEST(Number, GivesTheNearestValueOfTheWantedType)
{
    const std::tuple<Value, int64_t, uint64_t, double, bool> rows[] = {
        {Number(-5), -5, 0, -5.0, true},
        {Number(UINT64_MAX), INT64_MAX, UINT64_MAX, 18446744073709551616.0, true},
        {Number(-1.9), -1, 0, -1.9, true},
        {Number(0.5), 0, 0, 0.5, true},
        {Number(1e300), INT64_MAX, UINT64_MAX, 1e300, true},
        {Number(-1e300), INT64_MIN, 0, -1e300, true},
        {Number(9223372036854775808.0), INT64_MAX, uint64_t{1} << 63, 9223372036854775808.0, true},
        {Number(-0.0), 0, 0, 0, false},
        {Truth(true), 1, 1, 1, true},
        {Text("7"), 0, 0, 0, false},
        {Value(), 0, 0, 0, false},
    };
    for (const auto &[value, asInt, asUInt, asDouble, truth] : rows) {
        SCOPED_TRACE(Describe(value.get()));
        EXPECT_EQ(TQNumberGetInt64(value.get()), asInt);
        EXPECT_EQ(TQNumberGetUInt64(value.get()), asUInt);
        EXPECT_EQ(TQNumberGetDouble(value.get()), asDouble);
        EXPECT_EQ(TQNumberGetTruth(value.get()), truth);
    }
    EXPECT_EQ(TQNumberGetInt64(Number(std::nan("")).get()), 0);
    EXPECT_EQ(TQNumberGetKind(Cast{Number(uint64_t{5})}), kTQNumberInt64);
    EXPECT_EQ(TQNumberGetKind(Cast{Number(UINT64_MAX)}), kTQNumberUInt64);
}

TEST(Date, ComesBackAsItWasGiven)
{
    for (const double seconds : {0.0, 0.1, -1e9, 1.7e9 + 1e-7, 1e300, std::nan("")}) {
        EXPECT_TRUE(TQEqual(Date(seconds).get(), Date(seconds).get()));
        EXPECT_FALSE(TQEqual(Date(seconds).get(), Date(1.25).get()));
        EXPECT_TRUE(std::isnan(seconds) || TQDateGetSeconds(Cast{Date(seconds)}) == seconds) << seconds;
    }
}
