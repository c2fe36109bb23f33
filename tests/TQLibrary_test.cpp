#include "TQLibrary.h"

#include "Runtime/Values.h"
#include "support/Tests.h"
#include "vaultry_client_managed.h"

#include <thread>

namespace {

Ref<TQLibrary> Open(const TQURL *url, TQError **error = nullptr)
{
    return Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, url, error));
}

struct Library : InStore {
    const Ref<TQURL> root = FileURL(store.root()), document = FileURL(store.document()), out = FileURL(store / "out");
    const Ref<TQURL> web = Ref<TQURL>::Adopt(TQURLCreateWithString(String("https://example.com/x").get(), nullptr));
    const Ref<TQLibrary> opened = Open(root.get());
    TQLibrary *const library = opened.get();
};
INSTANTIATE_AS_EACH(Library);

TEST_P(Library, IsADataValueThatHoldsTheStoresHandle)
{
    ASSERT_TRUE(library);
    EXPECT_EQ(TQLibraryGetTypeID(), TQDataGetTypeID());
    EXPECT_EQ(TQGetTypeID(library), TQLibraryGetTypeID());
    ASSERT_EQ(TQDataGetLength(library), sizeof(void *));
    EXPECT_EQ((*static_cast<TQClientManagedStorage *const *>(TQDataGetBytes(library)))->rootPath, store.root());
    for (TQLibrary *any : {library, static_cast<TQLibrary *>(nullptr)})
        EXPECT_FALSE(TQLibrarySetStorageOptions(any, 1, nullptr) || TQLibraryGetStorageOptions(any, nullptr) != 0 ||
                     TQLibraryPrivateTransferGenerationToClientName(any, nullptr, nullptr, nullptr));
    const Says invalid = Failed(104, "invalid supplied url https://example.com/x");
    Expect({{invalid, CALL(TQLibraryCreateClientManaged(nullptr, web.get(), why))},
            {Failed(104, "invalid supplied url (null)"), CALL(TQLibraryCreateClientManaged(nullptr, nullptr, why))},
            {invalid, CALL(TQLibraryDestroyClientManaged(web.get(), why))}});
    // It must never be released, so it is made in a child, where that does not matter.
    EXPECT_TRUE(InChild(CALL(*static_cast<void *const *>(TQDataGetBytes(TQLibraryAllocate(nullptr))) == nullptr && why))
                    .succeeded);
    EXPECT_TRUE(TQLibraryDestroyClientManaged(root.get(), nullptr) && !disk::Exists(store.root()));
    EXPECT_EQ(TQLibraryCopyGenerationNames(library), nullptr) << "still an object, over nothing";
}

TEST_P(Library, HandsEverythingOnToItsStore)
{
    const auto name = String("g\xC3\xA9"), moved = String("moved"), key = String("k"), text = String("shown");
    // These paths are relative to another file, not to the current directory.
    const auto beside = [&](const char *path) {
        return Ref<TQURL>::Adopt(TQURLCreateWithFileSystemPathRelativeToBase(path, false, document.get()));
    };
    const Snapshot before = Snapshot::Of(store.document());
    OwnedError error;
    EXPECT_TRUE(
        TQLibraryAddGenerationWithOptionsByCopyingFile(library, name.get(), beside("document").get(), 4, error.out()) &&
        TQLibraryAddGenerationWithOptionsByMovingFile(library, moved.get(), document.get(), 0, error.out()) &&
        TQLibraryCopyGeneration(library, name.get(), beside("out").get(), error.out()))
        << error.description();
    EXPECT_FALSE(disk::Exists(store.document()));
    EXPECT_TRUE(Same(before, Snapshot::Of(store / "out")));
    EXPECT_THAT(Texts(Ref<TQArray>::Adopt(TQLibraryCopyGenerationNames(library)).get()),
                testing::ElementsAre("g\xC3\xA9", "moved"));
    EXPECT_EQ(Describe(Own(TQLibraryCopyURLForGeneration(library, moved.get())).get()),
              "file://" + store.Generation("moved"));
    EXPECT_EQ(TQLibraryGetGenerationOptions(library, name.get()), 4U);
    EXPECT_TRUE(TQLibrarySetGenerationOptions(library, name.get(), 0) &&
                TQLibraryGetGenerationOptions(library, name.get()) == 1);

    const auto set = [&](TQValue *value) {
        return TQLibrarySetGenerationInfoValueForKey(library, name.get(), key.get(), value);
    };
    EXPECT_TRUE(set(text.get()) &&
                TQLibrarySetGenerationInfoValues(library, name.get(), Cast{Dictionary({{Text("l"), Number(1)}})}));
    EXPECT_EQ(Describe(Own(TQLibraryCopyGenerationInfoValueForKey(library, name.get(), key.get())).get()), "shown");
    EXPECT_EQ(Describe(Own(TQLibraryCopyGenerationInfoDictionary(library, name.get())).get()),
              "{\"k\": \"shown\", \"l\": 1}");
    EXPECT_TRUE(set(nullptr) && !set(nullptr) &&
                !TQLibraryCopyGenerationInfoValueForKey(library, name.get(), key.get()));
    EXPECT_TRUE(TQLibrarySetGenerationOriginalDisplayName(library, name.get(), text.get()) &&
                !TQLibrarySetGenerationOriginalDisplayName(library, name.get(), String(std::string(768, 'd')).get()));
    EXPECT_EQ(Describe(Own(TQLibraryCopyGenerationOriginalDisplayName(library, name.get())).get()), "shown");

    EXPECT_TRUE(TQLibraryRemoveGenerations(library, Names({"g\xC3\xA9", "none"}).get()));
    EXPECT_THAT(store.List(), testing::ElementsAre("moved"));
    store.CheckInvariants();
}

TEST_P(Library, RefusesNamesAndURLsBeforeTheStoreIsAsked)
{
    const auto tooLong = String(std::string(255, 'n')), g = String("g");
    const Says invalid = Refused(105, "The supplied generation name was invalid");
    Expect(
        {{invalid, CALL(TQLibraryAddGenerationWithOptionsByMovingFile(library, tooLong.get(), document.get(), 0, why))},
         {invalid, CALL(TQLibraryCopyGeneration(library, tooLong.get(), out.get(), why))},
         {Failed(104, "not a file URL"),
          CALL(TQLibraryCopyGeneration(library, tooLong.get(), web.get(), why))}, // whatever the name
         {Failed(104, "not a file URL"), CALL(TQLibraryRestoreGeneration(library, nullptr, web.get(), nullptr, why))}});
    const auto info = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    TQDictionarySetValue(info.get(), g.get(), g.get());
    for (const auto &name : {tooLong, g, Ref<TQString>()})
        EXPECT_FALSE(TQLibrarySetGenerationOptions(library, name.get(), 2) ||
                     TQLibraryGetGenerationOptions(library, name.get()) != 0 ||
                     TQLibraryCopyURLForGeneration(library, name.get()) ||
                     TQLibrarySetGenerationInfoValueForKey(library, name.get(), g.get(), g.get()) ||
                     TQLibrarySetGenerationInfoValues(library, name.get(), info.get()) ||
                     TQLibraryCopyGenerationInfoValueForKey(library, name.get(), g.get()) ||
                     TQLibraryCopyGenerationInfoDictionary(library, name.get()) ||
                     TQLibrarySetGenerationOriginalDisplayName(library, name.get(), g.get()) ||
                     TQLibraryCopyGenerationOriginalDisplayName(library, name.get()));
    EXPECT_FALSE(TQLibraryRemoveGenerations(library, Names({".x"}).get()) ||
                 TQLibraryRemoveGenerations(library, nullptr) ||
                 TQLibraryAddGenerationWithFlags(library, g.get(), document.get(), nullptr, nullptr) ||
                 TQLibraryCopyGenerationNames(nullptr));
    store.CheckInvariants();
}

TEST(LibraryThreads, FirstObjectsAndOneObjectInManyThreads)
{
    TestStore store;
    const auto url = FileURL(store.root()), document = FileURL(store.document());
    const auto shared = Open(url.get());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            const auto name = String("g" + std::to_string(t));
            const auto own = Open(url.get());
            EXPECT_TRUE(
                TQLibraryAddGenerationWithOptionsByCopyingFile(shared.get(), name.get(), document.get(), 6, nullptr));
            for (uint64_t word = 2; word < 5000; word += 256)
                EXPECT_TRUE(TQLibrarySetGenerationOptions(own.get(), name.get(), word) &&
                            TQLibraryGetGenerationOptions(shared.get(), name.get()) == word);
        });
    for (auto &thread : threads) thread.join();
    store.CheckInvariants();
}

} // namespace
