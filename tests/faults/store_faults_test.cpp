// Every system call of the store's operations made to fail, or the process killed there, one at a time, each on a store
// of its own. Whatever happens, nobody loses a document and the next operation works.

#include "support/Identity.h"
#include "support/Store.h"

#include <vaultry/archive.h>
#include <vaultry/filesystem.h>
#include <vaultry/library.h>
#include <vaultry/metadata.h>

#include <cerrno>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Fate = Outcome::Fate;
using Messages = std::vector<std::string>;

const std::string kStaged = "$/store/.vaultry_staging/*/staged";

// All but the lock's: a process that can't release it stops, on purpose.
Fault FailWithIOError(int nth)
{
    Calls calls = kAllButMemory;
    calls.numbers.insert(calls.numbers.end(), kLock.numbers.begin(), kLock.numbers.end());
    return FailCall(nth, EIO, calls);
}

bool Said(const Outcome &outcome, const std::string &text)
{
    return std::any_of(outcome.log.begin(), outcome.log.end(),
                       [&](const LogLine &line) { return line.text.find(text) != std::string::npos; });
}

// Clean-up that was hit by the one fault itself, and said so.
bool CleanUpFailed(const Outcome &outcome)
{
    return Said(outcome, "failed to protect store") || Said(outcome, "deletable") ||
           Said(outcome, "Failed to remove") || Said(outcome, "fts_read() failed") || Said(outcome, "fts_open");
}

// The one failure of an add that leaves its generation.
bool OptionsFailed(const Outcome &add)
{
    return add.hasError &&
           (add.message.find("generation root") != std::string::npos ||
            add.message.find("/store/g\") failed; error") != std::string::npos) &&
           add.message.find("rename") == std::string::npos;
}

class StoreFaults : public AsEach {
protected:
    // A document with everything that archiving has to lift: no write bits, and flags where they are lifted.
    void Harden(TestStore &store) const
    {
        const std::string &document = store.document(), flagged = document + "/flagged";
        disk::MakeDirectory(flagged);
        for (const std::string &name : {flagged + "/link", store / "outside"})
            EXPECT_EQ(link((document + "/twin").c_str(), name.c_str()), 0);
        store.RememberDocument();
        chmod((document + "/folder").c_str(), 0555);
        chmod(document.c_str(), Lifts() ? 0775 : 0555); // a flag would not let it be made writable again
        disk::SetFlags(flagged, Lifts() ? FS_APPEND_FL : 0);
        disk::SetFlags(document, Lifts() ? FS_NODUMP_FL | FS_IMMUTABLE_FL : FS_NODUMP_FL);
    }

    // Root lifts nothing, so that its own flags would stop it.
    bool Lifts() const { return GetParam() == As::Capable; }
};
INSTANTIATE_AS_EACH(StoreFaults);

TEST_P(StoreFaults, AddingByCopying)
{
    const auto sweep = Sweep(FailWithIOError, [&](const Fault &fault, std::string *directory) {
        TestStore store(TestStore::Document::Folder, QuickVolume());
        disk::SetFlags(store.document(), FS_NODUMP_FL);
        *directory = store.path();
        const Snapshot before = Snapshot::Of(store.document(), Snapshot::kContents | Snapshot::kRights);
        const Outcome add = InChild(fault, [&](TQError **error) { return store.Add("g", error, true, 6); });
        EXPECT_TRUE(Same(before, Snapshot::Of(store.document(), Snapshot::kContents | Snapshot::kRights)));
        EXPECT_EQ(disk::Exists(store.Generation("g")), add.succeeded || OptionsFailed(add)) << add.message;
        store.CheckInvariants(Said(add, "Failed to revert") ? "g" : "", CleanUpFailed(add));
        return add;
    });
    const std::string leaf = "$/store/.vaultry_staging/*/staged/twin";
    ExpectReported(sweep, EIO,
                   {"Failed to open generation path \"$/store/.vaultry_lockfile\" for locking",
                    "mkdtemp(\"$/store/.vaultry_staging/XXXXXXX\") failed", "Failed to stat dest path \"" + leaf + "\"",
                    "failed to save original permissions for \"" + leaf + "\"",
                    "failed to set archived permissions for \"" + leaf + "\"", "failed to stat path " + kStaged,
                    "Failed to make staged item at path \"" + kStaged + "\" writable before rename",
                    "failed to unprotect store at \"$/store\", stat failed",
                    "failed to unprotect store at \"$/store\", chomd(0755) failed",
                    "Failed to install generation; rename (\"" + kStaged + "\" -> \"$/store/g\") failed",
                    "failed to make directory non-writable after moving",
                    "Failed to set flags on item at path \"$/store/g\"", "setxattr(\"$/store/g\") failed"},
                   {"3 failed to protect store at \"$/store\", stat failed",
                    "3 failed to protect store at \"$/store\", chomd(0555) failed"});
}

TEST_P(StoreFaults, AddingByMovingGivesTheDocumentBack)
{
    Messages missing;
    const auto sweep = Sweep(FailWithIOError, [&](const Fault &fault, std::string *directory) {
        TestStore store(TestStore::Document::Folder, QuickVolume());
        *directory = store.path();
        Harden(store);
        const Snapshot before = Snapshot::Of(store.document(), Snapshot::kContents | Snapshot::kRights);
        const Outcome add = InChild(fault, [&](TQError **error) { return store.Add("g", error, false, 6); });
        const auto staged = disk::List(store.Staging());
        if (add.succeeded || OptionsFailed(add))
            EXPECT_FALSE(disk::Exists(store.document()));
        else if (disk::Exists(store.document()))
            EXPECT_TRUE(Same(before, Snapshot::Of(store.document(), Snapshot::kContents | Snapshot::kRights)))
                << add.message;
        else
            EXPECT_TRUE(Said(add, "Failed to give the document back") && staged.size() == 1) << add.message;
        store.CheckInvariants(Said(add, "Failed to revert") ? "g" : "",
                              CleanUpFailed(add) || Said(add, "Failed to give the document back"));
        return add;
    });
    const std::string &s = kStaged;
    Messages errors = {"rename(\"$/document\", \"" + s + "\") failed",
                       "fts_read() failed for path '" + s + "'\n",
                       "failed to make temp file at \"" + s + "/twin_XXXXXX\"",
                       "failed open source file at \"" + s + "/twin\"",
                       "duplix (\"" + s + "/twin\" -> \"" + s + "/twin_*\") failed",
                       "rename (\"" + s + "/twin_*\" -> \"" + s + "/twin\") failed",
                       "failed to open generation item \"" + s + "/folder\""};
    Messages lines;
    if (Lifts()) {
        const Messages lifting = {"stat(\"$/document\") failed",
                                  "Failed to make staged item (\"$/document\") writable before rename",
                                  "failed to make directory (\"" + s + "\") non-writable after moving",
                                  "Failed to set flags on item at path \"" + s + "\"",
                                  "failed to make path \"" + s + "\" writable",
                                  "failed to make parent path \"" + s + "/folder\" writable",
                                  "failed to make parent path \"" + s + "/flagged\" writable"};
        errors.insert(errors.end(), lifting.begin(), lifting.end());
        lines = {"3 failed to restore parent path \"" + s + "/folder\" mode",
                 "3 failed to restore parent path \"" + s + "/flagged\" flags"};
    }
    if (GetParam() != As::Root) ExpectReported(sweep, EIO, errors, lines);
}

TEST_P(StoreFaults, CopyingOutLeavesNothingHalf)
{
    const auto sweep = Sweep(FailWithIOError, [&](const Fault &fault, std::string *directory) {
        TestStore store(TestStore::Document::Folder, QuickVolume());
        *directory = store.path();
        chmod(store.document().c_str(), 0575);
        disk::SetFlags(store.document(), FS_NODUMP_FL);
        EXPECT_TRUE(store.Add("g"));
        if (Lifts()) disk::SetFlags(store.Generation("g/twin"), FS_IMMUTABLE_FL);
        const Snapshot before = Snapshot::Of(store.root(), Snapshot::kContents);
        const Outcome copy = InChild(fault, [&](TQError **error) { return store.CopyOut("g", store / "out", error); });
        if (copy.succeeded)
            EXPECT_TRUE(Same(Snapshot::Of(store.document(), Snapshot::kContents),
                             Snapshot::Of(store / "out", Snapshot::kContents)));
        else
            EXPECT_TRUE(!disk::Exists(store / "out") || CleanUpFailed(copy)) << copy.message;
        disk::SetFlags(store.Generation("g/twin"), 0);
        EXPECT_TRUE(Same(before, Snapshot::Of(store.root(), Snapshot::kContents)));
        store.CheckInvariants();
        return copy;
    });
    Messages errors = {"Failed to stat dest path \"$/out/twin\"",
                       "Failed to retrieve original perms from xattr on item \"$/out/twin\"",
                       "Failed to temporarily make \"$/out/twin\" writable",
                       "chmod($/out/twin, 0664) failed",
                       "stat(\"$/out\") failed",
                       "failed to set final mode on \"$/out\"",
                       "failed to set final flags on \"$/out\""};
    if (Lifts()) errors.push_back("Failed to temporarily unset UF_IMMUTABLE for \"$/out/twin\"");
    ExpectReported(sweep, EIO, errors, {"3 chmod on path \"$/out\" returned error 5 (Input/output error)"});
}

TEST_P(StoreFaults, RemovingAndListing)
{
    const auto removal = Sweep(FailWithIOError, [&](const Fault &fault, std::string *directory) {
        TestStore store(TestStore::Document::Folder, QuickVolume());
        *directory = store.path();
        EXPECT_TRUE(store.Add("g"));
        disk::SetFlags(store.Generation("g"), FS_IMMUTABLE_FL);
        const Outcome remove = InChild(fault, [&](TQError **error) { return store.Remove({"none", "g"}, error); });
        EXPECT_EQ(disk::Exists(store.Generation("g")), !remove.succeeded) << remove.message;
        store.CheckInvariants("g", CleanUpFailed(remove));
        return remove;
    });
    Messages errors = {
        "failed to stat source path $/store/g", "failed to make directory writable prior to moving; path: $/store/g",
        "rename from '$/store/g' to '" + kStaged + "' failed", "mkdtemp(\"$/store/.vaultry_staging/XXXXXXX\") failed"};
    if (GetParam() != As::User) errors.push_back("failed to remove UF_IMMUTABLE on path $/store/g");
    ExpectReported(removal, EIO, errors);
    const auto listing = Sweep(FailWithIOError, [&](const Fault &fault, std::string *directory) {
        TestStore store(TestStore::Document::Folder, QuickVolume());
        *directory = store.path();
        EXPECT_TRUE(store.Add("g"));
        const Outcome list = InChild(fault, [&](TQError **error) {
            return static_cast<bool>(
                Ref<TQArray>::Adopt(TQClientManagedStorageCopyGenerationNames(store.handle(), error)));
        });
        store.CheckInvariants();
        return list;
    });
    ExpectReported(listing, EIO, {"unable to opendir($/store)"});
}

TEST_P(StoreFaults, ChangingMetadata)
{
    const auto sweep = Sweep(FailWithIOError, [&](const Fault &fault, std::string *directory) {
        const TempDirectory here(QuickVolume());
        *directory = here.path();
        const std::string item = disk::Write(here / "item", "", 0444);
        if (Lifts()) disk::SetFlags(item, FS_IMMUTABLE_FL);
        const Outcome set = InChild(fault, [&](TQError **e) { return TQSetGenerationOptions(item.c_str(), 6, e); });
        EXPECT_EQ(disk::Attribute(item, "com.corvane.vaultry.gen_options").has_value(), set.succeeded);
        if (!Said(set, "Failed to revert")) {
            EXPECT_EQ(disk::Mode(item), 0444U);
            EXPECT_EQ(disk::Flags(item), Lifts() ? FS_IMMUTABLE_FL : 0);
        }
        return set;
    });
    Messages errors = {"setxattr(\"$/item\") failed"}, lines;
    if (GetParam() != As::Root) {
        errors.insert(errors.end(), {"Failed to stat generation root at \"$/item\"",
                                     "Failed to make generation root at \"$/item\" writable"});
        lines = {"3 Failed to revert permissions on generation root at \"$/item\""};
    }
    if (Lifts()) {
        errors.push_back("Failed to remove UF_IMMUTABLE from generation root at \"$/item\"");
        lines.push_back("3 Failed to revert flags on generation root at \"$/item\"");
    }
    ExpectReported(sweep, EIO, errors, lines);
}

TEST_P(StoreFaults, RemovingATree)
{
    const auto sweep = Sweep(FailWithIOError, [&](const Fault &fault, std::string *directory) {
        TestStore store(TestStore::Document::Folder, QuickVolume());
        *directory = store.path();
        Harden(store);
        const Outcome remove = InChild(fault, [&](TQError **e) { return _RemoveTree(store.document().c_str(), 0, e); });
        EXPECT_EQ(disk::Exists(store.document()), !remove.succeeded);
        return remove;
    });
    ExpectReported(sweep, EIO,
                   {"Failed to make \"$/document\" deletable", "Failed to remove \"$/document\"",
                    "Failed to remove \"$/document/twin\"", "fts_read() failed for path '$/document'\n"});
}

// Flags that a file system refuses are no reason to fail.
TEST_P(StoreFaults, FlagsThatAreNotSupportedAreIgnored)
{
    const auto refuse = [](int nth) { return FailCall(nth, ENOTSUP, kFlags); };
    Sweep(refuse, [&](const Fault &fault, std::string *) {
        TestStore store(TestStore::Document::Folder, QuickVolume());
        disk::SetFlags(store.document(), FS_NODUMP_FL);
        const Outcome add = InChild(fault, [&](TQError **error) {
            return store.Add("g", error) && store.CopyOut("g", store / "out", error) && store.Add("h", error, false);
        });
        EXPECT_TRUE(add.succeeded) << add.message;
        store.CheckInvariants();
        return add;
    });
}

TEST_P(StoreFaults, AKillAtAnyCallLosesNoDocument)
{
    for (const bool copy : {true, false}) {
        SCOPED_TRACE(copy ? "copying" : "moving");
        Sweep([](int nth) { return KillBefore(nth); },
              [&](const Fault &fault, std::string *) {
                  TestStore store(TestStore::Document::Folder, QuickVolume());
                  Harden(store);
                  const Snapshot contents = Snapshot::Of(store.document(), Snapshot::kContents);
                  const Outcome add = InChild(fault, [&](TQError **error) { return store.Add("g", error, copy); });
                  std::string found = disk::Exists(store.document()) ? store.document() : store.Generation("g");
                  for (const auto &unique : disk::List(store.Staging()))
                      if (const std::string at = store.Staging() + "/" + unique; !disk::Exists(found)) {
                          EXPECT_EQ(disk::Attribute(at, "com.corvane.vaultry.moved_from"), store.document());
                          found = at + "/staged";
                      }
                  Snapshot kept = Snapshot::Of(found, Snapshot::kContents);
                  // A copy that was to take the place of a hard link may lie beside it.
                  std::erase_if(kept.items, [](const auto &item) { return item.first.find('_') != std::string::npos; });
                  EXPECT_TRUE(Same(contents, kept));
                  store.CheckInvariants("g", /*killed=*/true);
                  return add;
              });
    }
}

// No object, no crash, and what was allocated is given back.
TEST(LibraryFaults, NoMemoryMakesNoObjectAndHarmsNoStore)
{
    if (!kCanFailAllocations) GTEST_SKIP() << "a sanitizer allocates here";
    TestStore store(TestStore::Document::Folder, QuickVolume());
    const auto url = FileURL(store.root());
    const auto sweep = Sweep(FailAllocation, [&](const Fault &fault, std::string *) {
        return InChild(fault, [&](TQError **e) {
            return static_cast<bool>(Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, url.get(), e)));
        });
    });
    ExpectReported(sweep, 0, {"malloc failed", "TQLibraryAllocate failed"});
    EXPECT_TRUE(std::any_of(sweep.begin(), sweep.end(), [](const auto &said) {
        return said.first.find("could not be created") != std::string::npos;
    })) << "the allocator of library objects";
    store.CheckInvariants();
}

} // namespace
