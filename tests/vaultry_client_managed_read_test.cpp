#include "support/Tests.h"

namespace {

struct StoreRead : InStore {
    StoreRead() { EXPECT_TRUE(store.Add("g", nullptr, true, 6)); }
    const Ref<TQString> key = String("key"), value = String("value");
};
INSTANTIATE_AS_EACH(StoreRead);

TEST_P(StoreRead, EveryOperationFindsItsGenerationOrSaysWhyNot)
{
    char staged[1024] = "";
    uint16_t mode = 0;
    uint32_t flags = 0;
    const std::string out = store / "out", tooLong(1024 - store.root().size() - 1, 'n');
    // The arguments and expected result of each operation.
    const TQClientManagedStorage *s = handle;
    const char *n = nullptr;
    const Operation operations[] = {
        CALL(TQClientManagedStorageSetGenerationOptions(s, n, 2, why)),
        CALL(TQClientManagedStorageGetGenerationOptions(s, n, why) == 2),
        CALL(TQClientManagedStorageSetGenerationInfoValueForKey(s, n, key.get(), value.get(), why)),
        [&](TQError **why) {
            const auto info = Ref<TQDictionary>::Adopt(TQClientManagedStorageCopyGenerationInfoDictionary(s, n, why));
            return TQDictionaryGetCount(info.get()) == 1 && !TQDictionarySetValue(info.get(), value.get(), key.get());
        },
        CALL(TQEqual(TQDefer(TQClientManagedStorageCopyGenerationInfoValueForKey(s, n, key.get(), why)), value.get())),
        CALL(TQClientManagedStorageSetGenerationOriginalDisplayName(s, n, value.get(), why)),
        CALL(TQEqual(TQDefer(TQClientManagedStorageCopyGenerationOriginalDisplayName(s, n, why)), value.get())),
        [&](TQError **why) {
            const auto url = Ref<TQURL>::Adopt(TQClientManagedStorageCopyURLForGeneration(s, n, why));
            return url && TQURLGetPath(url.get()) == store.Generation(n) && !TQURLHasDirectoryPath(url.get());
        },
        CALL(TQClientManagedStorageCopyOut(s, n, staged, &mode, &flags, why)),
        CALL(TQClientManagedStorageCopyGeneration(s, n, out.c_str(), why)),
    };
    const std::pair<const char *, Says> refusals[] = {
        {"missing", Refused(105, "The supplied generation name doesn't exist")},
        {".vaultry_staging", Refused(105, "The supplied generation name was invalid")},
        {nullptr, Refused(105, "The supplied generation name was invalid")},
        {tooLong.c_str(), Refused(104, "The supplied generation name is too long")}};
    const DeferredScope scope;
    TQError *const untouched = reinterpret_cast<TQError *>(&store), *given = untouched;
    EXPECT_FALSE(TQClientManagedStorageSetGenerationInfoValueForKey(s, "g", key.get(), nullptr, &given));
    EXPECT_EQ(given, untouched) << "a write that fails leaves the caller's error as it was";
    Expect({{Refused(112, "key not found"),
             CALL(TQClientManagedStorageCopyGenerationInfoValueForKey(s, "g", key.get(), why))}});
    for (const auto &operation : operations) {
        SCOPED_TRACE(&operation - operations);
        const Snapshot before = Snapshot::Of(store.path());
        for (const auto &[name, says] : refusals) {
            n = name;
            Expect({{says, operation}});
        }
        n = "g";
        s = nullptr;
        EXPECT_FALSE(operation(nullptr));
        s = handle;
        EXPECT_TRUE(Same(before, Snapshot::Of(store.path())));
        OwnedError error;
        EXPECT_TRUE(operation(error.out())) << error.description();
    }
    // A copy in staging belongs to the caller until it is given back.
    EXPECT_TRUE(Same(Snapshot::Of(store.document(), Snapshot::kContents), Snapshot::Of(staged, Snapshot::kContents)));
    EXPECT_TRUE((mode & 07777U) == disk::Mode(store.document()) && flags == 0);
    for (const std::string &other : {out, store.Staging(), store.Staging() + "/../g", store.Staging() + "//x",
                                     store.Staging() + "/./x", store.Staging() + "/.."})
        Expect({{Failed(101, "Staging path provided to remove was not in staging directory"),
                 CALL(TQClientManagedStorageCopyOutDone(handle, other.c_str(), why))}});
    EXPECT_TRUE(Shell(store.root(), "chmod u+w .; mv .vaultry_staging ../area; ln -s ../area .vaultry_staging"));
    Expect({{Failed(101, "Staging path provided to remove was not in staging directory"),
             CALL(TQClientManagedStorageCopyOutDone(handle, staged, why))}});
    EXPECT_TRUE(Shell(store.root(), "rm .vaultry_staging; mv ../area .vaultry_staging; chmod u-w ."));
    EXPECT_TRUE(disk::Exists(out) && disk::Exists(staged) && disk::Exists(store.Generation("g")));
    EXPECT_TRUE(TQClientManagedStorageCopyOutDone(handle, std::string(staged, strlen(staged) - 7).c_str(), nullptr) &&
                !disk::Exists(staged));
    store.CheckInvariants();
}

} // namespace
