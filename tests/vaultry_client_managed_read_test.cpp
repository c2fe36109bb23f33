#include "support/Identity.h"
#include "support/Store.h"

#include <vaultry/number.h>

#include <cerrno>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class StoreRead : public AsEach {
protected:
    StoreRead() { EXPECT_TRUE(store.Add("g", nullptr, true, 6)); }

    TestStore store;
    const TQClientManagedStorage *const handle = store.handle();
    const Ref<TQString> key = String("key"), value = String("value");
};
INSTANTIATE_AS_EACH(StoreRead);

// Every operation that takes a name; each is true when it did its work.
struct Named {
    const char *what;
    std::function<bool(const TQClientManagedStorage *, const char *name, TQError **)> run;
};

TEST_P(StoreRead, EveryOperationFindsItsGenerationOrSaysWhyNot)
{
    char staged[1024] = "";
    uint16_t mode = 0;
    uint32_t flags = 0;
    using Store = const TQClientManagedStorage *;
    const std::vector<Named> operations = {
        {"set options",
         [](Store s, const char *n, TQError **e) { return TQClientManagedStorageSetGenerationOptions(s, n, 2, e); }},
        {"options",
         [](Store s, const char *n, TQError **e) { return TQClientManagedStorageGetGenerationOptions(s, n, e) == 2; }},
        {"set info",
         [&](Store s, const char *n, TQError **e) {
             return TQClientManagedStorageSetGenerationInfoValueForKey(s, n, key.get(), value.get(), e);
         }},
        {"info",
         [&](Store s, const char *n, TQError **e) {
             const auto info = Ref<TQDictionary>::Adopt(TQClientManagedStorageCopyGenerationInfoDictionary(s, n, e));
             // Immutable, and its values outlive it.
             return info && TQDictionaryGetCount(info.get()) == 1 &&
                    !TQDictionarySetValue(info.get(), value.get(), key.get());
         }},
        {"info value",
         [&](Store s, const char *n, TQError **e) {
             const auto found =
                 Ref<TQValue>::Adopt(TQClientManagedStorageCopyGenerationInfoValueForKey(s, n, key.get(), e));
             return found && TQEqual(found.get(), value.get());
         }},
        {"set display name",
         [&](Store s, const char *n, TQError **e) {
             return TQClientManagedStorageSetGenerationOriginalDisplayName(s, n, value.get(), e);
         }},
        {"display name",
         [&](Store s, const char *n, TQError **e) {
             return Text(
                        Ref<TQString>::Adopt(TQClientManagedStorageCopyGenerationOriginalDisplayName(s, n, e)).get()) ==
                    "value";
         }},
        {"URL",
         [&](Store s, const char *n, TQError **e) {
             const auto url = Ref<TQURL>::Adopt(TQClientManagedStorageCopyURLForGeneration(s, n, e));
             return url && TQURLGetPath(url.get()) == store.Generation(n) && !TQURLHasDirectoryPath(url.get());
         }},
        {"copy out", [&](Store s, const char *n,
                         TQError **e) { return TQClientManagedStorageCopyOut(s, n, staged, &mode, &flags, e); }},
        {"copy", [&](Store s, const char *n,
                     TQError **e) { return TQClientManagedStorageCopyGeneration(s, n, (store / "out").c_str(), e); }},
    };
    const std::string tooLong(1024 - store.root().size() - 1, 'n');
    for (const auto &operation : operations) {
        SCOPED_TRACE(operation.what);
        const auto with = [&](const char *name) {
            return [&operation, this, name](TQError **error) { return operation.run(handle, name, error); };
        };
        const Snapshot before = Snapshot::Of(store.path());
        ExpectRows({{"missing", Refused(105, "The supplied generation name doesn't exist"), with("missing")},
                    {"hidden", Refused(105, "The supplied generation name was invalid"), with(".vaultry_staging")},
                    {"null", Refused(105, "The supplied generation name was invalid"), with(nullptr)},
                    {"too long", Refused(104, "The supplied generation name is too long"), with(tooLong.c_str())}},
                   store.path());
        EXPECT_FALSE(operation.run(nullptr, "g", nullptr));
        EXPECT_TRUE(Same(before, Snapshot::Of(store.path())));
        OwnedError error;
        EXPECT_TRUE(operation.run(handle, "g", error.out())) << error.description();
    }
    // What lies in staging now belongs to the caller until it is given back.
    const std::string copy = staged;
    EXPECT_EQ(copy.substr(0, store.Staging().size()), store.Staging());
    EXPECT_TRUE(Same(Snapshot::Of(store.document(), Snapshot::kContents), Snapshot::Of(copy, Snapshot::kContents)));
    EXPECT_EQ(mode & 07777U, disk::Mode(store.document()));
    EXPECT_EQ(flags, 0U);
    ExpectRows({{"elsewhere", Failed(101, "Staging path provided to remove was not in staging directory"),
                 [&](TQError **e) { return TQClientManagedStorageCopyOutDone(handle, store.document().c_str(), e); }}},
               store.path());
    EXPECT_TRUE(TQClientManagedStorageCopyOutDone(handle, staged, nullptr));
    EXPECT_FALSE(disk::Exists(copy));
    store.CheckInvariants();
}

TEST_P(StoreRead, ACopyNeverReplacesAndIsTheDocumentAgain)
{
    const std::string there = disk::Write(store / "there", "theirs"), out = store / "out";
    const auto copyTo = [&](const std::string &path) {
        return [this, path](TQError **error) { return store.CopyOut("g", path, error); };
    };
    ASSERT_EQ(symlink("nowhere", (store / "dangling").c_str()), 0);
    ExpectRows(
        {{"a file", Refused(106, "path \"$/there\" already exists"), copyTo(there)},
         {"a folder", Refused(106, "path \"$/document\" already exists"), copyTo(store.document())},
         {"a dangling link", System(EEXIST, "duplix callback got an error what=2 stage=3 src=$/store/g dst=$/dangling"),
          copyTo(store / "dangling")},
         {"no folder to put it in",
          System(ENOENT, "duplix callback got an error what=0 stage=3 src=$/store/g dst=$/none/out"),
          copyTo(store / "none/out")}},
        store.path());
    EXPECT_EQ(disk::Read(there), "theirs");
    EXPECT_TRUE(disk::Exists(store / "dangling")) << "what was there is nobody's to remove";
    EXPECT_EQ(InChild(copyTo("")).status, 104);
    EXPECT_FALSE(TQClientManagedStorageCopyGeneration(handle, "g", nullptr, nullptr));

    disk::SetFlags(store.document(), FS_NODUMP_FL);
    chmod(store.document().c_str(), 0575);
    ASSERT_TRUE(store.Add("again"));
    OwnedError error;
    EXPECT_TRUE(store.CopyOut("again", out, error.out())) << error.description();
    EXPECT_TRUE(Same(Snapshot::Of(store.document()), Snapshot::Of(out)));
    EXPECT_FALSE(disk::Exists(store / "none"));
    store.CheckInvariants();
}

TEST_P(StoreRead, InfoKeysAndWritesThatFail)
{
    const auto none = String("none");
    ExpectRows({{"no such key", Refused(112, "key not found"),
                 [&](TQError **e) {
                     return TQClientManagedStorageCopyGenerationInfoValueForKey(handle, "g", none.get(), e) != nullptr;
                 }}},
               store.path());
    // A write that fails leaves the caller's error as it was; the log says why.
    TQError *const untouched = reinterpret_cast<TQError *>(&store);
    TQError *error = untouched;
    EXPECT_FALSE(TQClientManagedStorageSetGenerationInfoValueForKey(handle, "g", none.get(), nullptr, &error));
    EXPECT_EQ(error, untouched);
    EXPECT_EQ(
        TQDictionaryGetCount(
            Ref<TQDictionary>::Adopt(TQClientManagedStorageCopyGenerationInfoDictionary(handle, "g", nullptr)).get()),
        0U);
    ExpectRows({{"display name", System(ENODATA, "Failed to get original display name xattr"),
                 [&](TQError **e) {
                     return TQClientManagedStorageCopyGenerationOriginalDisplayName(handle, "g", e) != nullptr;
                 }}},
               store.path());
    store.CheckInvariants();
}

} // namespace
