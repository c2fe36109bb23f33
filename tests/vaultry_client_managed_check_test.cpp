#include "Runtime/Values.h"
#include "support/Tests.h"

#include <ctime>
#include <sys/syscall.h>

// The library's clock, which a change time can be compared with: nobody can set those.
static time_t ahead;
extern "C" time_t time(time_t *) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec + ahead;
}

namespace {

using Lines = std::vector<std::string>;

// Each finding as "kind path", and "mended" behind if it was; sorted.
Lines Check(const TestStore &store, bool repair)
{
    OwnedError error;
    const auto list =
        Ref<TQArray>::Adopt(TQClientManagedStorageCopyFindings(store.root().c_str(), repair, error.out()));
    EXPECT_TRUE(list) << error.description();
    Lines lines;
    for (size_t i = 0; i < TQArrayGetCount(list.get()); ++i) {
        const auto *finding = static_cast<const TQDictionary *>(TQArrayGetValueAtIndex(list.get(), i));
        const auto entry = [&](const char *key) { return TQDictionaryGetValue(finding, String(key).get()); };
        const auto *path = static_cast<const TQData *>(entry("path"));
        lines.push_back(Text(static_cast<const TQString *>(entry("kind"))) + " " +
                        Plain({static_cast<const char *>(TQDataGetBytes(path)), TQDataGetLength(path)}, store.path()) +
                        (TQNumberGetTruth(entry("mended")) ? " mended" : ""));
        EXPECT_GT(TQStringGetLength(static_cast<const TQString *>(entry("meaning"))), 20U);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

class StoreCheck : public AsEach {
protected:
    ~StoreCheck() override { ahead = 0; }
    static void Keep(const TestStore &store, const char *name)
    {
        ASSERT_TRUE(store.Add(name, nullptr, true, 6));
        const Value document = Bytes(store.document());
        EXPECT_TRUE(TQClientManagedStorageSetGenerationInfoValueForKey(
            store.handle(), name, String("vaultry.document").get(), document.get(), nullptr));
    }
};
INSTANTIATE_AS_EACH(StoreCheck);

// The document comes home with all it had; unless something else is there by now.
TEST_P(StoreCheck, AKilledMoveIsGivenBack)
{
    // As soon as it is in staging; and archived, when the root stands open for it.
    for (const bool late : {false, true})
        for (const bool taken : {false, true}) {
            TestStore store(TestStore::Document::Package, QuickVolume());
            constexpr unsigned what = Snapshot::kContents | Snapshot::kRights; // broken links stay, and change times
            const Snapshot before = Snapshot::Of(store.document(), what);
            EXPECT_EQ(
                InChild(late ? KillBefore(3, kRename) : KillAfter(1, kRename), CALL(store.Add("g", why, false))).fate,
                Outcome::Fate::Killed);
            if (taken) disk::Write(store.document(), "another");
            ahead = 3700;
            Lines wanted = {std::string("document-in-staging $/store/.vaultry_staging/*/staged") +
                            (taken ? "" : " mended")};
            if (late) wanted.push_back("root-unprotected $/store mended");
            EXPECT_EQ(Check(store, /*repair=*/true), wanted);
            ahead = 0;
            if (taken) continue;
            EXPECT_TRUE(Same(before, Snapshot::Of(store.document(), what)));
            Keep(store, "g");
            EXPECT_EQ(Check(store, /*repair=*/false), Lines());
            store.CheckInvariants();
        }
}

TEST_P(StoreCheck, AKilledRestoreIsTakenBack)
{
    TestStore store(TestStore::Document::Package, QuickVolume());
    Keep(store, "g");
    const auto library =
        Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(store.root()).get(), nullptr));
    const Snapshot before = Snapshot::Of(store.document());
    EXPECT_EQ(
        InChild(KillAfter(1, kRename), CALL(TQLibraryRestoreGeneration(library.get(), String("g").get(),
                                                                       FileURL(store.document()).get(), nullptr, why)))
            .fate,
        Outcome::Fate::Killed);
    EXPECT_FALSE(disk::Exists(store.document()));
    EXPECT_EQ(Check(store, true).size(), 2U) << "the document and the copy";
    EXPECT_TRUE(Same(before, Snapshot::Of(store.document())));
    ahead = 3700;
    EXPECT_EQ(Check(store, true), Lines{"staging-litter $/store/.vaultry_staging/* mended"});
    store.CheckInvariants();
    EXPECT_EQ(TQClientManagedStorageCopyFindings(nullptr, true, nullptr), nullptr);
}

TEST_P(StoreCheck, WhatCannotBeReadIsNeverWell)
{
    TestStore store(TestStore::Document::Folder, QuickVolume());
    Keep(store, "g");
    const Calls reading{SYS_openat, SYS_getdents64, SYS_getxattr, SYS_lgetxattr, SYS_fgetxattr};
    int well = 0;
    for (int nth = 1;; ++nth) {
        const Outcome outcome = InChild(FailCall(nth, EIO, reading), [&](TQError **why) {
            const auto list = Ref<TQArray>::Adopt(TQClientManagedStorageCopyFindings(store.root().c_str(), false, why));
            return list && TQArrayGetCount(list.get()) == 0;
        });
        well += outcome.succeeded;
        if (!outcome.faultFired) break;
    }
    EXPECT_EQ(well, 1) << "only when nothing failed";
}

} // namespace
