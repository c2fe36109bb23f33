#include "Runtime/Values.h"

TEST(Error, KeepsWhatItWasGivenAndNothingMore)
{
    const Value cause = Own(TQErrorCreate(kTQPOSIXErrorDomain, 2, nullptr)), info = Own(TQDictionaryCreateMutable());
    TQDictionarySetValue(Cast{info}, kTQErrorDescriptionKey, Text("no such thing").get());
    TQDictionarySetValue(Cast{info}, kTQErrorUnderlyingKey, cause.get());
    const Value error = Own(TQErrorCreate(kTQLibraryErrorDomain, -9, Cast{info}));
    TQDictionarySetValue(Cast{info}, kTQErrorDescriptionKey, Text("changed later").get());

    EXPECT_TRUE(TQEqual(TQErrorGetDomain(Cast{error}), Text("TQLibraryErrorDomain").get()));
    EXPECT_EQ(TQErrorGetCode(Cast{error}), -9);
    EXPECT_EQ(Describe(error.get()), "no such thing");
    EXPECT_EQ(TQErrorGetUnderlying(Cast{error}), cause.get());
    EXPECT_EQ(TQDictionaryGetCount(TQErrorGetUserInfo(Cast{error})), 2u);
}

TEST(Error, WithoutADescriptionNamesDomainAndCode)
{
    const Value odd = Dictionary(
        {{Value::Retain(kTQErrorDescriptionKey), Number(5)}, {Value::Retain(kTQErrorUnderlyingKey), Text("no error")}});
    const auto make = [](int code, TQDictionary *info) { return Own(TQErrorCreate(kTQPOSIXErrorDomain, code, info)); };
    const Value bare = make(2, nullptr), strange = make(2, Cast{odd});
    for (const Value &error : {bare, strange}) {
        EXPECT_EQ(UTF8(Own(TQErrorCopyDescription(Cast{error}))), "TQPOSIXErrorDomain error 2");
        EXPECT_EQ(TQErrorGetUnderlying(Cast{error}), nullptr);
    }
    EXPECT_EQ(TQErrorGetUserInfo(Cast{bare}), nullptr);
    EXPECT_TRUE(TQEqual(bare.get(), make(2, nullptr).get()));
    EXPECT_FALSE(TQEqual(bare.get(), make(3, nullptr).get()) || TQEqual(bare.get(), strange.get()));
    EXPECT_EQ(TQErrorCreate(nullptr, 1, nullptr), nullptr);
}
