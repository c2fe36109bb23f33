#include "Runtime/Values.h"

namespace {

Value Error(TQString *domain, intptr_t code, const Value &info = {})
{
    return Own(TQErrorCreate(domain, code, static_cast<TQDictionary *>(info.get())));
}

} // namespace

TEST(Error, KeepsWhatItWasGivenAndNothingMore)
{
    const Value cause = Error(kTQPOSIXErrorDomain, 2);
    const auto info = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    TQDictionarySetValue(info.get(), kTQErrorDescriptionKey, Text("no such thing").get());
    TQDictionarySetValue(info.get(), kTQErrorUnderlyingKey, cause.get());
    const Value owned = Own(TQErrorCreate(kTQLibraryErrorDomain, -9, info.get()));
    const auto *error = static_cast<TQError *>(owned.get());
    TQDictionarySetValue(info.get(), kTQErrorDescriptionKey, Text("changed later").get());

    EXPECT_TRUE(TQEqual(TQErrorGetDomain(error), Text("TQLibraryErrorDomain").get()));
    EXPECT_EQ(TQErrorGetCode(error), -9);
    EXPECT_EQ(UTF8(Own(TQErrorCopyDescription(error))), "no such thing");
    EXPECT_EQ(Describe(error), "no such thing");
    EXPECT_EQ(TQErrorGetUnderlying(error), cause.get());
    EXPECT_EQ(TQDictionaryGetCount(TQErrorGetUserInfo(error)), 2u);
}

TEST(Error, WithoutADescriptionNamesDomainAndCode)
{
    const Value bare = Error(kTQPOSIXErrorDomain, 2);
    const Value strange = Error(kTQPOSIXErrorDomain, 2,
                                Dictionary({{Value::Retain(kTQErrorDescriptionKey), Number(5)},
                                            {Value::Retain(kTQErrorUnderlyingKey), Text("no error")}}));
    for (const Value &error : {bare, strange}) {
        EXPECT_EQ(Describe(error.get()), "TQPOSIXErrorDomain error 2");
        EXPECT_EQ(TQErrorGetUnderlying(static_cast<TQError *>(error.get())), nullptr);
    }
    EXPECT_EQ(TQErrorGetUserInfo(static_cast<TQError *>(bare.get())), nullptr);
    EXPECT_TRUE(TQEqual(bare.get(), Error(kTQPOSIXErrorDomain, 2).get()));
    EXPECT_FALSE(TQEqual(bare.get(), Error(kTQPOSIXErrorDomain, 3).get()));
    EXPECT_FALSE(TQEqual(bare.get(), strange.get()));
    EXPECT_EQ(TQErrorCreate(nullptr, 1, nullptr), nullptr);
}
