// Every system call of the store's operations made to fail, or the process killed there, one at a time, each on a store
// of its own. Whatever happens, nobody loses a document and the next operation works.

#include "support/Tests.h"

#include <regex>

namespace {

using Messages = std::vector<std::string>;
using Reported = std::map<std::string, Outcome>;

const std::string kStaged = "$/store/.vaultry_staging/*/staged";

// All but the lock's: a process that can't release it stops, on purpose.
Fault FailWithIOError(int nth)
{
    Calls calls = kAllButMemory;
    calls.numbers.insert(calls.numbers.end(), kLock.numbers.begin(), kLock.numbers.end());
    return FailCall(nth, EIO, calls);
}

bool SaidAny(const Outcome &outcome, const Messages &texts)
{
    return std::any_of(outcome.log.begin(), outcome.log.end(), [&](const LogLine &line) {
        return std::any_of(texts.begin(), texts.end(),
                           [&](const auto &text) { return line.text.find(text) != std::string::npos; });
    });
}

// What an operation did stays when only its last flush fails.
bool LastFlushFailed(const Outcome &outcome)
{
    return std::regex_search(outcome.message, std::regex("^Failed to flush (?!.*/staged\")"));
}

// The other failure of an add that leaves its generation.
bool OptionsFailed(const Outcome &add)
{
    return LastFlushFailed(add) ||
           std::regex_search(add.message, std::regex("generation root|^setxattr\\(\".*/store/g\"\\)"));
}

Snapshot Kept(const std::string &path)
{
    return Snapshot::Of(path, Snapshot::kContents | Snapshot::kRights);
}

class StoreFaults : public AsEach {
protected:
    // Root lifts nothing, so that its own flags would stop it.
    const bool lifts = GetParam() == As::Capable;

    // A document with everything that archiving has to lift: no write bits, and flags where they are lifted.
    void Harden(TestStore &store) const
    {
        const std::string &document = store.document(), flagged = disk::MakeDirectory(document + "/flagged");
        for (const std::string &name : {flagged + "/link", store / "outside"})
            EXPECT_EQ(link((document + "/twin").c_str(), name.c_str()), 0);
        store.RememberDocument();
        chmod((document + "/folder").c_str(), 0555);
        chmod(document.c_str(), lifts ? 0775 : 0555); // a flag would not let it be made writable again
        disk::SetFlags(flagged, lifts ? FS_APPEND_FL : 0);
        disk::SetFlags(document, lifts ? FS_NODUMP_FL | FS_IMMUTABLE_FL : FS_NODUMP_FL);
    }

    static Reported OnStores(const std::function<Fault(int)> &faults, const std::function<void(TestStore &)> &prepare,
                             const std::function<bool(TestStore &, TQError **)> &operation,
                             const std::function<void(TestStore &, const Outcome &, const Snapshot &document)> &check)
    {
        return Sweep(faults, [&](const Fault &fault, std::string *directory) {
            TestStore store(TestStore::Document::Folder, QuickVolume());
            *directory = store.path();
            prepare(store);
            const Snapshot document = Kept(store.document());
            const Outcome outcome = InChild(fault, CALL(operation(store, why)));
            check(store, outcome, document);
            // Clean-up that was hit by the one fault itself said so.
            const bool killed = outcome.fate == Outcome::Fate::Killed;
            store.CheckInvariants(killed || SaidAny(outcome, {"Failed to revert"}) ? "g" : "",
                                  killed || SaidAny(outcome, {"failed to protect store", "deletable",
                                                              "Failed to remove", "fts_", "Failed to give"}));
            return outcome;
        });
    }
};
INSTANTIATE_AS_EACH(StoreFaults);

TEST_P(StoreFaults, AddingByCopyingLeavesTheDocumentAlone)
{
    const auto sweep = OnStores(
        FailWithIOError, [](TestStore &store) { disk::SetFlags(store.document(), FS_NODUMP_FL); },
        [](TestStore &store, TQError **error) { return store.Add("g", error, true, 6); },
        [](TestStore &store, const Outcome &add, const Snapshot &document) {
            EXPECT_TRUE(Same(document, Kept(store.document())));
            EXPECT_EQ(disk::Exists(store.Generation("g")), add.succeeded || OptionsFailed(add)) << add.message;
        });
    const std::string twin = "\"" + kStaged + "/twin\"", root = "store at \"$/store\", ";
    ExpectReported(
        sweep, EIO,
        {"Failed to open generation path \"$/store/.vaultry_lockfile\" for locking",
         "mkdtemp(\"$/store/.vaultry_staging/XXXXXXX\") failed", "failed to save original permissions for " + twin,
         "failed to set archived permissions for " + twin, "failed to stat path " + kStaged,
         "Failed to make staged item at path \"" + kStaged + "\" writable before rename",
         "failed to unprotect " + root + "stat failed", "failed to unprotect " + root + "chomd(0755) failed",
         "Failed to install generation; rename (\"" + kStaged + "\" -> \"$/store/g\") failed",
         "failed to make directory non-writable after moving", "Failed to set flags on item at path \"$/store/g\"",
         "setxattr(\"$/store/g\") failed", "Failed to flush \"" + kStaged + "\" to disk",
         "Failed to flush \"$/store/g\" to disk", "Failed to flush \"$/store\" to disk"},
        {"3 failed to protect " + root + "stat failed", "3 failed to protect " + root + "chomd(0555) failed"});
}

TEST_P(StoreFaults, AddingByMovingGivesTheDocumentBack)
{
    const auto sweep = OnStores(
        FailWithIOError, [this](TestStore &store) { Harden(store); },
        [](TestStore &store, TQError **error) { return store.Add("g", error, false, 6); },
        [](TestStore &store, const Outcome &add, const Snapshot &document) {
            EXPECT_EQ(disk::Exists(store.document()), !add.succeeded && !OptionsFailed(add)) << add.message;
            EXPECT_TRUE(!disk::Exists(store.document()) || Same(document, Kept(store.document()))) << add.message;
        });
    const std::string &s = kStaged;
    Messages errors = {"rename(\"$/document\", \"" + s + "\") failed", "fts_read() failed for path '" + s + "'\n",
                       "failed to open generation item \"" + s + "/folder\"", "Failed to flush \"$\" to disk"},
             lines;
    const Messages breaking = {"failed to make temp file at \"" + s + "/twin_XXXXXX\"",
                               "failed open source file at \"" + s + "/twin\"",
                               "duplix (\"" + s + "/twin\" -> \"" + s + "/twin_*\") failed",
                               "rename (\"" + s + "/twin_*\" -> \"" + s + "/twin\") failed"};
    errors.insert(errors.end(), breaking.begin(), breaking.end());
    if (GetParam() != As::Root)
        errors.insert(errors.end(),
                      {"stat(\"$/document\") failed", "failed to make parent path \"" + s + "/folder\" writable"});
    if (lifts) {
        errors.insert(errors.end(), {"Failed to make staged item (\"$/document\") writable before rename",
                                     "failed to make directory (\"" + s + "\") non-writable after moving",
                                     "Failed to set flags on item at path \"" + s + "\"",
                                     "failed to make path \"" + s + "\" writable",
                                     "failed to make parent path \"" + s + "/flagged\" writable"});
        lines = {"3 failed to restore parent path \"" + s + "/folder\" mode",
                 "3 failed to restore parent path \"" + s + "/flagged\" flags"};
    }
    ExpectReported(sweep, EIO, errors, lines);
}

TEST_P(StoreFaults, CopyingOutLeavesNothingHalf)
{
    const auto sweep = OnStores(
        FailWithIOError,
        [this](TestStore &store) {
            chmod(store.document().c_str(), 0575);
            disk::SetFlags(store.document(), lifts ? FS_NODUMP_FL | FS_IMMUTABLE_FL : FS_NODUMP_FL);
            EXPECT_TRUE(store.Add("g"));
            if (lifts) disk::SetFlags(store.Generation("g/twin"), FS_IMMUTABLE_FL);
        },
        [](TestStore &store, TQError **error) { return store.CopyOut("g", store / "out", error); },
        [](TestStore &store, const Outcome &copy, const Snapshot &) {
            disk::SetFlags(store.Generation("g/twin"), 0);
            if (copy.succeeded)
                EXPECT_TRUE(Same(store.contents(), Snapshot::Of(store / "out", Snapshot::kContents)));
            else
                EXPECT_TRUE(!disk::Exists(store / "out") || SaidAny(copy, {"deletable", "Failed to remove", "fts_"}))
                    << copy.message;
        });
    Messages errors = {"Failed to retrieve original perms from xattr on item \"$/out/twin\"",
                       "Failed to temporarily make \"$/out/twin\" writable",
                       "chmod($/out/twin, 0664) failed",
                       "stat(\"$/out\") failed",
                       "failed to set final mode on \"$/out\"",
                       "failed to set final flags on \"$/out\""};
    Messages lines = {"3 chmod on path \"$/out\" returned error 5 (Input/output error)"};
    if (lifts)
        errors.insert(errors.end(),
                      {"Failed to temporarily unset UF_IMMUTABLE for \"$/out/twin\"", "chflags($/out) failed"});
    if (lifts) lines.push_back("3 chflags on path \"$/out\" returned error 5 (Input/output error)");
    ExpectReported(sweep, EIO, errors, lines);
}

TEST_P(StoreFaults, RemovingTakesAGenerationOrLeavesIt)
{
    const auto sweep = OnStores(
        FailWithIOError,
        [](TestStore &store) {
            EXPECT_TRUE(store.Add("g"));
            disk::SetFlags(store.Generation("g"), FS_IMMUTABLE_FL);
        },
        [](TestStore &store, TQError **error) {
            return store.Remove({"none", "g"}, error);
        },
        [](TestStore &store, const Outcome &remove, const Snapshot &) {
            EXPECT_EQ(disk::Exists(store.Generation("g")), !remove.succeeded && !LastFlushFailed(remove))
                << remove.message;
            chmod(store.Generation("g").c_str(), 0555); // what was lifted for the move may stay so
        });
    Messages errors = {"failed to stat source path $/store/g",
                       "failed to make directory writable prior to moving; path: $/store/g",
                       "rename from '$/store/g' to '" + kStaged + "' failed", "Failed to flush \"$/store\" to disk",
                       "mkdtemp(\"$/store/.vaultry_staging/XXXXXXX\") failed"};
    if (GetParam() != As::User) errors.push_back("failed to remove UF_IMMUTABLE on path $/store/g");
    ExpectReported(sweep, EIO, errors);
}

TEST_P(StoreFaults, ChangingMetadataPutsProtectionBack)
{
    const auto lift = [this](TestStore &store) {
        EXPECT_TRUE(store.Add("g"));
        disk::SetFlags(store.Generation("g"), lifts ? FS_IMMUTABLE_FL : 0);
    };
    const auto sweep = OnStores(
        FailWithIOError, lift,
        [](TestStore &store, TQError **error) {
            return TQSetGenerationOptions(store.Generation("g").c_str(), 6, error);
        },
        [this](TestStore &store, const Outcome &set, const Snapshot &) {
            EXPECT_EQ(TQGetGenerationOptions(store.Generation("g").c_str()),
                      set.succeeded || LastFlushFailed(set) ? 6U : 1U);
            EXPECT_TRUE(disk::Flags(store.Generation("g")) == (lifts ? FS_IMMUTABLE_FL : 0) ||
                        SaidAny(set, {"Failed to revert"}));
        });
    const std::string g = "generation root at \"$/store/g\"";
    Messages errors = {"setxattr(\"$/store/g\") failed", "Failed to flush \"$/store/g\" to disk"}, lines;
    if (GetParam() != As::Root) {
        errors.insert(errors.end(), {"Failed to stat " + g, "Failed to make " + g + " writable"});
        lines = {"3 Failed to revert permissions on " + g};
    }
    if (lifts) errors.push_back("Failed to remove UF_IMMUTABLE from " + g);
    if (lifts) lines.push_back("3 Failed to revert flags on " + g);
    ExpectReported(sweep, EIO, errors, lines);
}

TEST_P(StoreFaults, RemovingATree)
{
    const auto sweep = OnStores(
        FailWithIOError, [this](TestStore &store) { Harden(store); },
        [](TestStore &store, TQError **error) { return _RemoveTree(store.document().c_str(), 0, error); },
        [](TestStore &store, const Outcome &remove, const Snapshot &) {
            EXPECT_EQ(disk::Exists(store.document()), !remove.succeeded);
        });
    ExpectReported(sweep, EIO,
                   {"Failed to make \"$/document\" deletable", "Failed to remove \"$/document\"",
                    "Failed to remove \"$/document/twin\"", "fts_read() failed for path '$/document'\n"});
}

// Flags that a file system refuses are no reason to fail.
TEST_P(StoreFaults, FlagsThatAreNotSupportedAreIgnored)
{
    OnStores([](int nth) { return FailCall(nth, ENOTSUP, kFlags); },
             [](TestStore &store) { disk::SetFlags(store.document(), FS_NODUMP_FL); },
             [](TestStore &store, TQError **error) {
                 return store.Add("g", error) && store.CopyOut("g", store / "out", error) &&
                        store.Add("h", error, false);
             },
             [](TestStore &, const Outcome &outcome, const Snapshot &) {
                 EXPECT_TRUE(outcome.succeeded) << outcome.message;
             });
}

TEST_P(StoreFaults, AKillAtAnyCallLosesNoDocument)
{
    for (const bool copy : {true, false})
        OnStores([](int nth) { return KillBefore(nth); }, [this](TestStore &store) { Harden(store); },
                 [copy](TestStore &store, TQError **error) { return store.Add("g", error, copy); },
                 [](TestStore &store, const Outcome &, const Snapshot &) {
                     std::string found = disk::Exists(store.document()) ? store.document() : store.Generation("g");
                     if (!disk::Exists(found)) {
                         const std::string unique = store.Staging() + "/" + disk::List(store.Staging()).at(0);
                         EXPECT_EQ(disk::Attribute(unique, "com.corvane.vaultry.moved_from"), store.document());
                         found = unique + "/staged";
                     }
                     // A copy that was to take the place of a hard link may lie beside it.
                     Snapshot kept = Snapshot::Of(found, Snapshot::kContents);
                     std::erase_if(kept.items,
                                   [](const auto &item) { return item.first.find('_') != std::string::npos; });
                     EXPECT_TRUE(Same(store.contents(), kept));
                 });
}

// No object, no crash, and what was allocated is given back.
TEST(LibraryFaults, NoMemoryMakesNoObjectAndHarmsNoStore)
{
    if (!kCanFailAllocations) GTEST_SKIP() << "a sanitizer allocates here";
    TestStore store;
    const auto url = FileURL(store.root());
    const auto sweep = Sweep(FailAllocation, [&](const Fault &fault, std::string *) {
        return InChild(fault, CALL(Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, url.get(), why))));
    });
    ExpectReported(sweep, 0, {"malloc failed", "TQLibraryAllocate failed"},
                   {"3 The allocator of library objects could not be created"});
    store.CheckInvariants();

    // A query tells all or nothing.
    for (const char *name : {"a", "b"}) ASSERT_TRUE(store.Add(name, nullptr, true, name[0] == 'a' ? 1 : 4));
    ASSERT_TRUE(
        TQClientManagedStorageSetGenerationOriginalDisplayName(store.handle(), "b", String("B").get(), nullptr));
    const auto all = [&](TQError **why) {
        return Ref<TQDictionary>::Adopt(TQClientManagedStorageCopyAllGenerationsInfos(store.handle(), nullptr, why));
    };
    const auto whole = all(nullptr);
    for (const auto &[text, outcome] : Sweep(FailAllocation, [&](const Fault &fault, std::string *) {
             return InChild(fault, [&](TQError **why) {
                 const auto infos = all(why);
                 if (infos && !TQEqual(infos.get(), whole.get())) abort();
                 return static_cast<bool>(infos);
             });
         }))
        EXPECT_TRUE(!outcome.hasError || outcome.status == kTQStatusFailed) << text << " " << outcome.status;
}

} // namespace
