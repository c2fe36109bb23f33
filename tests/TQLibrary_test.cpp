#include "support/Identity.h"
#include "support/Store.h"
#include "vaultry_client_managed.h"

#include <vaultry/library.h>
#include <vaultry/number.h>

#include <atomic>
#include <cerrno>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <thread>

namespace {

Ref<TQLibrary> Open(const TQURL *url, TQError **error = nullptr)
{
    return Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, url, error));
}

class Library : public AsEach {
protected:
    TestStore store;
    const Ref<TQLibrary> library = Open(FileURL(store.root()).get());
    const Ref<TQURL> document = FileURL(store.document());
    const Ref<TQURL> web = Ref<TQURL>::Adopt(TQURLCreateWithString(String("https://example.com/x").get(), nullptr));
};
INSTANTIATE_AS_EACH(Library);

TEST_P(Library, IsADataValueThatHoldsTheStoresHandle)
{
    ASSERT_TRUE(library);
    EXPECT_EQ(TQLibraryGetTypeID(), TQDataGetTypeID());
    EXPECT_EQ(TQGetTypeID(library.get()), TQLibraryGetTypeID());
    ASSERT_EQ(TQDataGetLength(library.get()), sizeof(void *));
    EXPECT_EQ((*static_cast<TQClientManagedStorage *const *>(TQDataGetBytes(library.get())))->rootPath, store.root());
    EXPECT_FALSE(TQLibrarySetStorageOptions(nullptr, 1, nullptr) ||
                 TQLibrarySetStorageOptions(library.get(), 1, nullptr));
    EXPECT_EQ(TQLibraryGetStorageOptions(nullptr, nullptr) + TQLibraryGetStorageOptions(library.get(), nullptr), 0U);
    EXPECT_FALSE(TQLibraryPrivateTransferGenerationToClientName(nullptr, nullptr, nullptr, nullptr));

    const Snapshot before = Snapshot::Of(store.root(), Snapshot::kUntouched);
    Open(FileURL(store.root()).get()); // released at once
    EXPECT_TRUE(Same(before, Snapshot::Of(store.root(), Snapshot::kUntouched)));

    const auto open = [&](const Ref<TQURL> &url) {
        return [&](TQError **error) { return static_cast<bool>(Open(url.get(), error)); };
    };
    const auto missing = FileURL(store / "missing");
    ExpectRows({{"not a file", Failed(104, "invalid supplied url https://example.com/x"), open(web)},
                {"none", Failed(104, "invalid supplied url (null)"), open(Ref<TQURL>())},
                {"missing", Failed(104, "The supplied path \"$/missing\" does not exist"), open(missing)},
                {"destroying what is not a file", Failed(104, "invalid supplied url https://example.com/x"),
                 [&](TQError **error) { return TQLibraryDestroyClientManaged(web.get(), error); }}},
               store.path());
    const Outcome allocated = InChild([](TQError **) {
        const TQLibrary *fresh = TQLibraryAllocate(nullptr); // never to be released
        return fresh != nullptr && *static_cast<void *const *>(TQDataGetBytes(fresh)) == nullptr;
    });
    EXPECT_TRUE(allocated.succeeded);
    EXPECT_TRUE(TQLibraryDestroyClientManaged(FileURL(store.root()).get(), nullptr));
    EXPECT_FALSE(disk::Exists(store.root()));
    EXPECT_EQ(TQLibraryCopyGenerationNames(library.get()), nullptr) << "still an object, over nothing";
}

TEST_P(Library, GenerationsFromAddingToRemoving)
{
    const auto name = String("g\xC3\xA9"), moved = String("moved"), key = String("key"), value = String("value");
    TQLibrary *const l = library.get();
    OwnedError error;
    const Snapshot before = Snapshot::Of(store.document());
    EXPECT_TRUE(TQLibraryAddGenerationWithOptionsByCopyingFile(l, name.get(), document.get(), 4, error.out()))
        << error.description();
    EXPECT_TRUE(Same(before, Snapshot::Of(store.document())));
    EXPECT_TRUE(TQLibraryAddGenerationWithOptionsByMovingFile(l, moved.get(), document.get(), 0, error.out()))
        << error.description();
    EXPECT_FALSE(disk::Exists(store.document()));
    EXPECT_THAT(Texts(Ref<TQArray>::Adopt(TQLibraryCopyGenerationNames(l)).get()),
                testing::ElementsAre("g\xC3\xA9", "moved"));
    EXPECT_EQ(TQLibraryGetGenerationOptions(l, name.get()), 4U);
    EXPECT_TRUE(TQLibrarySetGenerationOptions(l, name.get(), 0));
    EXPECT_EQ(TQLibraryGetGenerationOptions(l, name.get()), 1U);
    const auto url = Ref<TQURL>::Adopt(TQLibraryCopyURLForGeneration(l, moved.get()));
    EXPECT_EQ(TQURLGetPath(url.get()), store.Generation("moved"));
    EXPECT_TRUE(TQLibraryCopyGeneration(l, name.get(), FileURL(store / "out").get(), error.out()))
        << error.description();
    EXPECT_TRUE(Same(before, Snapshot::Of(store / "out")));
    EXPECT_TRUE(TQLibraryRemoveGenerations(l, Names({"g\xC3\xA9", "none"}).get()));
    EXPECT_TRUE(TQLibraryRemoveGenerations(l, Names({}).get()));
    EXPECT_THAT(store.List(), testing::ElementsAre("moved"));
    store.CheckInvariants();
}

TEST_P(Library, RefusesNamesAndURLsBeforeTheStoreIsAsked)
{
    TQLibrary *const l = library.get();
    const auto tooLong = String(std::string(255, 'n'));
    const auto out = FileURL(store / "out");
    const auto add = [&](const Ref<TQURL> &url, const Ref<TQString> &name, bool copy) {
        return [&, copy](TQError **error) {
            return (copy ? TQLibraryAddGenerationWithOptionsByCopyingFile
                         : TQLibraryAddGenerationWithOptionsByMovingFile)(l, name.get(), url.get(), 0, error);
        };
    };
    const auto g = String("g");
    const Says invalid = Refused(105, "The supplied generation name was invalid");
    ExpectRows(
        {{"copying", invalid, add(document, tooLong, true)},
         {"moving", invalid, add(document, tooLong, false)},
         {"copying out", invalid, [&](TQError **e) { return TQLibraryCopyGeneration(l, tooLong.get(), out.get(), e); }},
         {"to a web page, whatever the name", Failed(104, "not a file URL"),
          [&](TQError **e) { return TQLibraryCopyGeneration(l, tooLong.get(), web.get(), e); }},
         {"from a web page: the store decides",
          System(ENOENT, "duplix callback got an error what=0 stage=3 src=/x dst=$/store/.vaultry_staging/*/staged"),
          add(web, g, true)},
         {"no such generation", Refused(105, "The supplied generation name doesn't exist"),
          [&](TQError **e) { return TQLibraryCopyGeneration(l, g.get(), out.get(), e); }}},
        store.path());
    for (const auto &name : {tooLong, g, Ref<TQString>()}) {
        EXPECT_FALSE(TQLibrarySetGenerationOptions(l, name.get(), 2));
        EXPECT_EQ(TQLibraryGetGenerationOptions(l, name.get()), 0U);
        EXPECT_EQ(TQLibraryCopyURLForGeneration(l, name.get()), nullptr);
    }
    EXPECT_FALSE(TQLibraryRemoveGenerations(l, Names({".x"}).get()) || TQLibraryRemoveGenerations(l, nullptr));
    EXPECT_FALSE(add(Ref<TQURL>(), g, true)(nullptr) || add(Ref<TQURL>(), g, false)(nullptr));
    EXPECT_EQ(TQLibraryCopyGenerationNames(nullptr), nullptr);
    store.CheckInvariants();
}

TEST_P(Library, StatusOfAStoredItemIsThatOfTheDocument)
{
    const std::string item = disk::Write(store / "item", "", 0666), byteName = "com.corvane.vaultry.orig_perms_v1";
    const struct {
        std::optional<std::string> byte;
        mode_t stored, mode;
        uint32_t flags;
    } rows[] = {{std::nullopt, 0444, 0644, 0}, {"\x1c", 0444, 0666, 0}, {std::string(1, '\0'), 0444, 0444, 0},
                {"\x01", 0464, 0464, 2},       {"\x06", 0444, 0644, 4}, {"\x03", 0500, 0500, 6}};
    TQFileStatus status{};
    for (const auto &row : rows) {
        chmod(item.c_str(), 0666);
        if (row.byte) disk::SetAttribute(item, byteName, *row.byte);
        chmod(item.c_str(), row.stored);
        errno = EDOM;
        EXPECT_EQ(TQLibraryInternalStatGeneration(item.c_str(), &status), 0);
        EXPECT_EQ(errno, EDOM);
        EXPECT_EQ(status.mode, S_IFREG | row.mode);
        EXPECT_EQ(status.flags, row.flags);
    }
    for (const char *bytes : {"two", ""}) {
        chmod(item.c_str(), 0600);
        disk::SetAttribute(item, byteName, bytes);
        const int error = *bytes == '\0' ? 0 : ERANGE;
        const Outcome outcome = InChild([&](TQError **) {
            return TQLibraryInternalStatGeneration(item.c_str(), &status) == -1 && errno == EIO &&
                   (status.mode & 0777) == 0600;
        });
        EXPECT_TRUE(outcome.succeeded);
        ExpectSays(
            outcome,
            Logs(0, "failed to retrieve original perms from xattr on item \"$/item\"; error " + std::to_string(error)),
            store.path());
    }
    EXPECT_EQ(TQLibraryInternalStatGeneration((store / "missing").c_str(), &status), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(LibraryThreads, FirstObjectsAndOneObjectInManyThreads)
{
    TestStore store;
    const auto url = FileURL(store.root()), document = FileURL(store.document());
    const auto shared = Open(url.get());
    std::atomic<int> good = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            const auto name = String("g" + std::to_string(t));
            const auto own = Open(url.get());
            bool all =
                TQLibraryAddGenerationWithOptionsByCopyingFile(shared.get(), name.get(), document.get(), 6, nullptr);
            for (int i = 0; i < 20; ++i)
                all &= TQLibrarySetGenerationOptions(own.get(), name.get(), 2U + (static_cast<uint64_t>(i) << 8U)) &&
                       (TQLibraryGetGenerationOptions(shared.get(), name.get()) >> 8U) == static_cast<uint64_t>(i);
            good += all ? 1 : 0;
        });
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(good, 4);
    store.CheckInvariants();
}

} // namespace
