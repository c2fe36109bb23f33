#include "Runtime/Values.h"
#include "support/Tests.h"

namespace {

struct GenerationMetadata : InStore {};
INSTANTIATE_AS_EACH(GenerationMetadata);

TEST_P(GenerationMetadata, IsSetReadAndRemoved)
{
    const auto library =
        Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(store.root()).get(), nullptr));
    TQLibrary *const l = library.get();
    const auto g = String("g"), k = String("k"), shown = String("shown"), tooLong = String(std::string(768, 'd'));
    const auto set = [&](const Value &value) {
        return TQLibrarySetGenerationInfoValueForKey(l, g.get(), k.get(), value.get());
    };
    EXPECT_TRUE(store.Add("g", nullptr, true, 2));
    const Value kinds = Array({Number(UINT64_MAX), Number(0.25), Truth(true), Text("\xE2\x82\xAC"), Date(1.5),
                               Bytes(std::string("\0\xff", 2)), Nested(20), Dictionary({{Text("in"), Number(-1)}})});
    EXPECT_TRUE(set(kinds));
    EXPECT_FALSE(set(Bytes(std::string(70000, 'x')))) << "more than any attribute holds";
    EXPECT_FALSE(set(Own(TQSetCreate(nullptr, 0))));
    const Value all = Own(TQLibraryCopyGenerationInfoDictionary(l, g.get())),
                one = Own(TQLibraryCopyGenerationInfoValueForKey(l, g.get(), k.get()));
    EXPECT_TRUE(TQEqual(all.get(), Dictionary({{Text("k"), kinds}}).get()) && TQEqual(one.get(), kinds.get()))
        << Describe(all.get());
    EXPECT_TRUE(set({}) && !set({}) && !TQLibraryCopyGenerationInfoValueForKey(l, g.get(), k.get()));

    EXPECT_TRUE(TQLibrarySetGenerationOriginalDisplayName(l, g.get(), shown.get()) &&
                !TQLibrarySetGenerationOriginalDisplayName(l, g.get(), tooLong.get()));
    EXPECT_TRUE(TQEqual(Own(TQLibraryCopyGenerationOriginalDisplayName(l, g.get())).get(), shown.get()));
    EXPECT_TRUE(TQLibrarySetGenerationOriginalDisplayName(l, g.get(), nullptr) &&
                !TQLibraryCopyGenerationOriginalDisplayName(l, g.get()));
    store.CheckInvariants();
}

} // namespace
