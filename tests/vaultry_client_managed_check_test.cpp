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

// What repairing says, and before it, mending nothing, looking. What could not be mended is left as it is.
void ExpectFindings(const TestStore &store, const Lines &wanted)
{
    Lines seen = wanted, left;
    for (auto &line : seen) line = line.substr(0, line.find(" mended"));
    for (const auto &line : wanted)
        if (line.find(" mended") == std::string::npos) left.push_back(line);
    const Snapshot before = Snapshot::Of(store.path(), Snapshot::kUntouched);
    EXPECT_EQ(Check(store, /*repair=*/false), seen);
    EXPECT_TRUE(Same(before, Snapshot::Of(store.path(), Snapshot::kUntouched))) << "looking changes nothing";
    constexpr unsigned whatStays = Snapshot::kContents | Snapshot::kRights;
    const Snapshot unmended = Snapshot::Of(store.path(), whatStays);
    EXPECT_EQ(Check(store, /*repair=*/true), wanted);
    EXPECT_TRUE(left != wanted || Same(unmended, Snapshot::Of(store.path(), whatStays)));
    EXPECT_EQ(Check(store, /*repair=*/false), left);
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

TEST_P(StoreCheck, DamageIsNamedAndMendedWhereThatIsSafe)
{
    const bool isRoot = GetParam() == As::Root;
    const std::string aside = "document-tmp.nosync.ABCDEF", attribute = "setfattr -n user.com.corvane.vaultry.";
    const struct {
        std::string damage; // by hand, in the directory of store and document
        Lines wanted;
        time_t later = 0;
    } rows[] = {
        {"true", {}},
        {"chmod 755 store", {"root-unprotected $/store mended"}},
        {"chmod 755 store; rm -f $l; chmod 555 store", {"lock-file-missing $/store/.vaultry_lockfile mended"}},
        {"chmod 644 $l", {"lock-file-mode $/store/.vaultry_lockfile mended"}},
        {"chmod 755 store; rm -f $l; mkdir $l; chmod 555 store", {"lock-file-foreign $/store/.vaultry_lockfile"}},
        {"chmod 755 store; rmdir $s; chmod 555 store", {"staging-missing $/store/.vaultry_staging mended"}},
        {"chmod 755 store; rmdir $s; touch $s; chmod 555 store", {"staging-foreign $/store/.vaultry_staging"}},
        {"chmod 755 $s", {"staging-mode $/store/.vaultry_staging mended"}},
        {"mkdir $s/Unique1; touch $s/Unique1/staged", {"staging-recent $/store/.vaultry_staging/*"}},
        {"mkdir $s/Unique1; touch $s/Unique1/staged", {"staging-litter $/store/.vaultry_staging/* mended"}, 3700},
        {"mkdir $s/theirs; touch $s/Unique2",
         {"staging-foreign $/store/.vaultry_staging/*", "staging-foreign $/store/.vaultry_staging/theirs"},
         3700},
        {"chmod 755 $g", {"unprotected $/store/g mended"}},
        {"chmod 557 $g/twin; chmod 750 $g/folder",
         {"unprotected $/store/g/folder mended", "unprotected $/store/g/twin mended"}},
        {"chmod 755 $g; echo theirs > $g/new; touch $g/._twin; chmod 555 $g", {"not-archived $/store/g/new"}},
        {"chmod 755 $g; ln -s twin $g/l; mkfifo $g/p; chmod 555 $g", {"foreign $/store/g/l", "foreign $/store/g/p"}},
        {"chmod 644 $g/twin; " + attribute + "orig_perms_v1 -v two $g/twin; chmod 444 $g/twin",
         {"permissions-malformed $/store/g/twin"}},
        {"chmod 0 $g/twin", isRoot ? Lines{} : Lines{"unreadable $/store/g/twin"}},
        {"chmod 0 $g/folder", isRoot ? Lines{} : Lines{"unreadable $/store/g/folder"}},
        {"chmod 755 $g; " + attribute + "info -v nonsense $g; chmod 555 $g", {"info-malformed $/store/g"}},
        {"chmod 755 $g; " + attribute + "origdisplayname $g; chmod 555 $g", {"display-name-malformed $/store/g"}},
        {"chmod 755 $g; " + attribute + "gen_options -v 7-bytes $g; chmod 555 $g", {"options-malformed $/store/g"}},
        {"chmod 755 store $g; mv $g store/\xff; chmod 555 store store/\xff", {"name-not-utf8 $/store/\xff"}},
        {"mkdir " + aside, {"placeholder-empty $/" + aside}},
        {"mkdir " + aside + "; mv document away", {"placeholder-empty $/" + aside}},
        {"mkdir " + aside + "; touch " + aside + "/in", {"document-aside $/" + aside}},
        {"mkdir " + aside + "; touch " + aside + "/in; chmod 300 " + aside,
         {(isRoot ? "document-aside $/" : "placeholder-unreadable $/") + aside}},
        {"mv document " + aside, {"document-aside $/" + aside + " mended"}},
        {"touch document-tmp.nosync.ABC adocument-tmp.nosync.ABCDEF", {}}, // names that no restore makes
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.damage);
        TestStore store(TestStore::Document::Folder, QuickVolume());
        for (const char *name : {"g", "h"}) Keep(store, name); // two of one document
        const Snapshot document = Snapshot::Of(store.document());
        const std::string shell =
            "cd '" + store.path() + "' && g=store/g s=store/.vaultry_staging l=store/.vaultry_lockfile; ";
        ASSERT_EQ(system((shell + row.damage).c_str()), 0);
        ahead = row.later;
        ExpectFindings(store, row.wanted);
        ahead = 0;
        EXPECT_EQ(Same(document, Snapshot::Of(store.document())), row.damage.find("away") == std::string::npos);
    }
}

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
            ExpectFindings(store, wanted);
            ahead = 0;
            if (taken) continue;
            EXPECT_TRUE(Same(before, Snapshot::Of(store.document(), what)));
            Keep(store, "g");
            ExpectFindings(store, {});
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

    const auto check = [](const char *path) {
        return [path](TQError **why) { return bool(Own(TQClientManagedStorageCopyFindings(path, true, why))); };
    };
    const std::string file = disk::Write(store / "file", ""), missing = store / "missing";
    ExpectRows({{Failed(104, "The supplied path \"$/file\" does not exist"), check(file.c_str())},
                {Failed(104, "The supplied path \"$/missing\" does not exist"), check(missing.c_str())},
                {Failed(104, "The supplied path \"\" does not exist"), check(nullptr)},
                {Refused(104, "\"$/document\" is no store: it has neither a lock file nor a staging directory"),
                 check(store.document().c_str())}},
               store.path());
    EXPECT_TRUE(Same(before, Snapshot::Of(store.document()))) << "somebody's own folder stays as it is";
}

TEST_P(StoreCheck, WhatCannotBeReadIsNeverWell)
{
    TestStore store(TestStore::Document::Folder, QuickVolume());
    Keep(store, "g");
    Calls reading = kOpen;
    for (const Calls &more : {kReadDirectory, kGetAttribute})
        reading.numbers.insert(reading.numbers.end(), more.numbers.begin(), more.numbers.end());
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
