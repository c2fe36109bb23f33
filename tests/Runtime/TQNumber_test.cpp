#include "Runtime/Values.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

struct Case {
    Value value;
    long double exact; // wide enough for every value of every form
};

// The values where one form ends or loses digits, and their neighbours, in every form that holds them.
std::vector<Case> Numbers()
{
    std::vector<Case> cases = {{Number(std::nan("1")), NAN}, {Number(-std::nan("2")), NAN}};
    for (const long double near : {0.0L, 1.0L, 5.0L, 0x1p31L, 0x1p53L, 0x1p63L, 0x1p64L, 1e300L, HUGE_VALL})
        for (const long double step : {-1.0L, -0.5L, 0.0L, 0.5L, 1.0L})
            for (const long double exact : {near + step, -(near + step)}) {
                const bool whole = exact == truncl(exact);
                if (whole && exact >= -0x1p63L && exact < 0x1p63L)
                    cases.push_back({Number(static_cast<int64_t>(exact)), exact});
                if (whole && exact >= 0 && exact < 0x1p64L)
                    cases.push_back({Number(static_cast<uint64_t>(exact)), exact});
                if (static_cast<double>(exact) == exact) cases.push_back({Number(static_cast<double>(exact)), exact});
            }
    return cases;
}

template <class T> T Nearest(long double exact)
{
    using Limits = std::numeric_limits<T>;
    return std::isnan(exact) ? 0 : static_cast<T>(std::clamp<long double>(exact, Limits::min(), Limits::max()));
}

} // namespace

TEST(Number, IsExactInEveryForm)
{
    const std::vector<Case> cases = Numbers();
    for (const auto &[value, exact] : cases) {
        SCOPED_TRACE(Describe(value.get()));
        EXPECT_EQ(TQNumberGetInt64(value.get()), Nearest<int64_t>(exact));
        EXPECT_EQ(TQNumberGetUInt64(value.get()), Nearest<uint64_t>(exact));
        const double real = TQNumberGetDouble(value.get());
        EXPECT_TRUE(real == static_cast<double>(exact) || std::isnan(exact));
        EXPECT_TRUE(TQNumberGetTruth(value.get()) == (exact != 0) || std::isnan(exact));
        const bool isUnsigned = TQNumberGetKind(Cast{value}) == kTQNumberUInt64;
        EXPECT_TRUE(isUnsigned == (exact >= 0x1p63L) || TQNumberGetKind(Cast{value}) == kTQNumberDouble);
        for (const Case &other : cases) {
            const bool same = exact == other.exact || (std::isnan(exact) && std::isnan(other.exact));
            ASSERT_EQ(TQEqual(value.get(), other.value.get()), same) << Describe(other.value.get());
            ASSERT_TRUE(!same || TQHash(value.get()) == TQHash(other.value.get())) << Describe(other.value.get());
        }
    }
    for (const Value &none : {Text("7"), Value()})
        EXPECT_FALSE(TQNumberGetUInt64(none.get()) || TQIsNumber(none.get()));
    EXPECT_TRUE(TQNumberGetInt64(kTQBooleanTrue) == 1 && TQNumberGetDouble(kTQBooleanTrue) == 1);
}
