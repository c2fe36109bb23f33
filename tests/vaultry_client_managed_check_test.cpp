#include "Runtime/Values.h"
#include "support/Tests.h"

#include <ctime>

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
    static void Keep(const TestStore &store, const std::string &name)
    {
        ASSERT_TRUE(store.Add(name, nullptr, true, 6));
        const Value document = Bytes(store.document());
        EXPECT_TRUE(TQClientManagedStorageSetGenerationInfoValueForKey(
            store.handle(), name.c_str(), String("vaultry.document").get(), document.get(), nullptr));
    }
    // Inside what is write-protected.
    template <class Change> static void Within(const std::string &directory, Change change)
    {
        const mode_t mode = disk::Mode(directory);
        chmod(directory.c_str(), 0700);
        change();
        chmod(directory.c_str(), mode);
    }
    static void Plant(const std::string &path, const char *attribute, const std::string &bytes)
    {
        Within(path, [&] { disk::SetAttribute(path, std::string("com.corvane.vaultry.") + attribute, bytes); });
    }
    const bool isRoot = GetParam() == As::Root;
};
INSTANTIATE_AS_EACH(StoreCheck);

TEST_P(StoreCheck, DamageIsNamedAndMendedWhereThatIsSafe)
{
    using Damage = std::function<void(const TestStore &)>;
    const std::string aside = "document-tmp.nosync.ABCDEF";
    const struct {
        Damage damage;
        Lines wanted;
        time_t later = 0;
    } rows[] = {
        {[](auto &) {}, {}},
        {[](auto &s) { chmod(s.root().c_str(), 0755); }, {"root-unprotected $/store mended"}},
        {[](auto &s) { Within(s.root(), [&] { unlink((s.root() + "/.vaultry_lockfile").c_str()); }); },
         {"lock-file-missing $/store/.vaultry_lockfile mended"}},
        {[](auto &s) { chmod((s.root() + "/.vaultry_lockfile").c_str(), 0644); },
         {"lock-file-mode $/store/.vaultry_lockfile mended"}},
        {[](auto &s) {
             Within(s.root(), [&] {
                 unlink((s.root() + "/.vaultry_lockfile").c_str());
                 disk::MakeDirectory(s.root() + "/.vaultry_lockfile");
             });
         },
         {"lock-file-foreign $/store/.vaultry_lockfile"}},
        {[](auto &s) { Within(s.root(), [&] { rmdir(s.Staging().c_str()); }); },
         {"staging-missing $/store/.vaultry_staging mended"}},
        {[](auto &s) {
             Within(s.root(), [&] {
                 rmdir(s.Staging().c_str());
                 disk::Write(s.Staging(), "");
             });
         },
         {"staging-foreign $/store/.vaultry_staging"}},
        {[](auto &s) { chmod(s.Staging().c_str(), 0755); }, {"staging-mode $/store/.vaultry_staging mended"}},
        {[](auto &s) { disk::Write(disk::MakeDirectory(s.Staging() + "/Unique1") + "/staged", "", 0400); },
         {"staging-recent $/store/.vaultry_staging/*"}},
        {[](auto &s) { disk::Write(disk::MakeDirectory(s.Staging() + "/Unique1") + "/staged", "", 0400); },
         {"staging-litter $/store/.vaultry_staging/* mended"},
         3700},
        {[](auto &s) {
             disk::MakeDirectory(s.Staging() + "/somebody's");
             disk::Write(s.Staging() + "/Unique2", "");
         },
         {"staging-foreign $/store/.vaultry_staging/*", "staging-foreign $/store/.vaultry_staging/somebody's"},
         3700},
        {[](auto &s) { chmod(s.Generation("g").c_str(), 0755); }, {"unprotected $/store/g mended"}},
        {[](auto &s) {
             chmod(s.Generation("g/twin").c_str(), 0557);
             chmod(s.Generation("g/folder").c_str(), 0750);
         },
         {"unprotected $/store/g/folder mended", "unprotected $/store/g/twin mended"}},
        {[](auto &s) { Within(s.Generation("g"), [&] { disk::Write(s.Generation("g/new"), "theirs"); }); },
         {"not-archived $/store/g/new"}},
        {[](auto &s) { Within(s.Generation("g"), [&] { disk::Write(s.Generation("g/._twin"), ""); }); }, {}},
        {[](auto &s) {
             Within(s.Generation("g"), [&] {
                 EXPECT_EQ(symlink("twin", s.Generation("g/link").c_str()), 0);
                 EXPECT_EQ(mkfifo(s.Generation("g/pipe").c_str(), 0600), 0);
             });
         },
         {"foreign $/store/g/link", "foreign $/store/g/pipe"}},
        {[](auto &s) { Plant(s.Generation("g/twin"), "orig_perms_v1", "two"); },
         {"permissions-malformed $/store/g/twin"}},
        {[](auto &s) { chmod(s.Generation("g/folder/leaf").c_str(), 0); },
         isRoot ? Lines{} : Lines{"unreadable $/store/g/folder/leaf"}},
        {[](auto &s) { chmod(s.Generation("g/folder").c_str(), 0); },
         isRoot ? Lines{} : Lines{"unreadable $/store/g/folder"}},
        {[](auto &s) { Plant(s.Generation("g"), "info", "not a list"); }, {"info-malformed $/store/g"}},
        {[](auto &s) { Plant(s.Generation("g"), "origdisplayname", std::string(768, 'n')); },
         {"display-name-malformed $/store/g"}},
        {[](auto &s) { Plant(s.Generation("g"), "gen_options", "7 bytes"); }, {"options-malformed $/store/g"}},
        {[](auto &s) { EXPECT_TRUE(s.Add("\xff")); }, {"name-not-utf8 $/store/\xff"}},
        {[&](auto &s) { disk::MakeDirectory(s / aside); }, {"placeholder-empty $/" + aside}},
        {[&](auto &s) {
             disk::MakeDirectory(s / aside);
             rename(s.document().c_str(), (s / "away").c_str());
         },
         {"placeholder-empty $/" + aside}},
        {[&](auto &s) { disk::Write(disk::MakeDirectory(s / aside) + "/in", "old"); }, {"document-aside $/" + aside}},
        {[&](auto &s) { rename(s.document().c_str(), (s / aside).c_str()); },
         {"document-aside $/" + aside + " mended"}},
        // Names that no restore makes.
        {[](auto &s) {
             for (const char *name :
                  {"document-tmp.nosync.ABC", "document-tmp.nosync.ABCDEF.x", "adocument-tmp.nosync.ABCDEF"})
                 disk::Write(s / name, "theirs");
         },
         {}},
        // Two generations of one document, as usual.
        {[&](auto &s) {
             Keep(s, "h");
             disk::MakeDirectory(s / aside);
         },
         {"placeholder-empty $/" + aside}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.wanted));
        TestStore store(TestStore::Document::Folder, QuickVolume());
        Keep(store, "g");
        const Snapshot document = Snapshot::Of(store.document());
        row.damage(store);
        ahead = row.later;
        ExpectFindings(store, row.wanted);
        if (row.wanted == Lines{"document-aside $/" + aside + " mended"}) {
            EXPECT_TRUE(Same(document, Snapshot::Of(store.document())));
        }
        ahead = 0;
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
                {Failed(104, "The supplied path \"\" does not exist"), check(nullptr)}},
               store.path());
}

} // namespace
