#include "support/Tests.h"

#include <vaultry/vaultry.hpp>

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
    const auto found = vaultry::Store::findings(store.root(), repair).value();
    Lines lines;
    for (const auto &finding : found)
        lines.push_back(finding.kind + " " + Plain(finding.path, store.path()) + (finding.mended ? " mended" : ""));
    std::sort(lines.begin(), lines.end());
    return lines;
}

class StoreCheck : public AsEach {
protected:
    ~StoreCheck() override { ahead = 0; }
    static vaultry::Store Keep(const TestStore &store)
    {
        const auto kept = vaultry::Store::open(store.root()).value();
        EXPECT_TRUE(kept.add("g", store.document(), 6) &&
                    kept.set_info("g", vaultry::document_key, vaultry::Data(store.document())));
        return kept;
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
            Keep(store);
            EXPECT_EQ(Check(store, /*repair=*/false), Lines());
            store.CheckInvariants();
        }
}

TEST_P(StoreCheck, AKilledRestoreIsTakenBack)
{
    TestStore store(TestStore::Document::Package, QuickVolume());
    const vaultry::Store kept = Keep(store);
    const Snapshot before = Snapshot::Of(store.document());
    const auto restore = [&](TQError **) { return bool(kept.restore("g", store.document())); };
    EXPECT_EQ(InChild(KillAfter(1, kRename), restore).fate, Outcome::Fate::Killed);
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
    Keep(store);
    const Calls reading{SYS_openat, SYS_getdents64, SYS_getxattr, SYS_lgetxattr, SYS_fgetxattr};
    int well = 0;
    for (int nth = 1;; ++nth) {
        const Outcome outcome = InChild(FailCall(nth, EIO, reading), [&](TQError **) {
            const auto found = vaultry::Store::findings(store.root());
            return found && found->empty();
        });
        well += outcome.succeeded;
        if (!outcome.faultFired) break;
    }
    EXPECT_EQ(well, 1) << "only when nothing failed";
}

} // namespace
