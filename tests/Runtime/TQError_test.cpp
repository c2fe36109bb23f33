#include "Runtime/Values.h"

TEST(Error, KeepsWhatItWasGivenAndDescribesItself)
{
    const Value cause = Own(TQErrorCreate(kTQPOSIXErrorDomain, 2, nullptr)), info = Own(TQDictionaryCreateMutable());
    const auto make = [&](const Value &description, const Value &underlying) {
        TQDictionarySetValue(Cast{info}, kTQErrorDescriptionKey, description.get());
        TQDictionarySetValue(Cast{info}, kTQErrorUnderlyingKey, underlying.get());
        return Own(TQErrorCreate(kTQPOSIXErrorDomain, 2, Cast{info}));
    };
    const Value error = make(Text("no such thing"), cause);
    const Value odd = make(Number(5), Text("no error")); // leaves the first unchanged
    EXPECT_EQ(Describe(error.get()), "no such thing");
    EXPECT_EQ(TQErrorGetUnderlying(Cast{error}), cause.get());
    EXPECT_EQ(Describe(odd.get()), "TQPOSIXErrorDomain error 2");
    EXPECT_EQ(TQErrorGetUnderlying(Cast{odd}), nullptr);
    EXPECT_FALSE(TQErrorGetUserInfo(Cast{cause}) || TQErrorCreate(nullptr, 1, nullptr));
}
