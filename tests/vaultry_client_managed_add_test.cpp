#include "support/Tests.h"
#include "vaultry_client_managed.h"

#include <csignal>
#include <sys/wait.h>
#include <sys/xattr.h>

namespace {

constexpr unsigned kKept = Snapshot::kContents | Snapshot::kRights; // a move to and fro changes times of directories

struct StoreAdd : InStore {
    Operation Add(const std::string &name, const std::string &source, bool copy = true) const
    {
        return [this, name, source, copy](TQError **error) {
            return TQClientManagedStorageAdd(handle, name.c_str(), source.c_str(), 0, error, copy);
        };
    }
    // Good items, archived before or after whatever is put at "bad".
    std::string MakeTree(const std::string &name) const
    {
        const std::string tree = disk::MakeDirectory(store / name);
        for (const char *item : {"/a", "/b", "/y", "/z"}) disk::Write(tree + item, "good", 0664);
        disk::Write(disk::MakeDirectory(tree + "/folder", 0770) + "/in", "good");
        return tree;
    }
};
INSTANTIATE_AS_EACH(StoreAdd);

TEST_P(StoreAdd, CopyingLeavesTheDocumentAndMovingTakesIt)
{
    const std::string file = disk::Write(store / "file", "a file", 0640), longest(254, 'n');
    const Snapshot before = Snapshot::Of(store.document(), Snapshot::kUntouched);
    OwnedError error;
    EXPECT_TRUE(store.Add("copied", error.out(), true, 6)) << error.description();
    EXPECT_TRUE(Same(before, Snapshot::Of(store.document(), Snapshot::kUntouched)));
    EXPECT_TRUE(Add(longest, store.document())(nullptr) && Add("\xff not UTF-8", store.document())(nullptr));
    EXPECT_TRUE(store.Add("moved", error.out(), false, 0x20)) << error.description();
    EXPECT_TRUE(Add("file", file)(error.out()) && Add("moved file", file, false)(error.out())) << error.description();
    EXPECT_FALSE(disk::Exists(store.document()) || disk::Exists(file));
    for (const char *name : {"copied", "moved"}) EXPECT_EQ(disk::Mode(store.Generation(name)), 0555U);
    for (const char *name : {"file", "moved file"}) {
        EXPECT_EQ(disk::Mode(store.Generation(name)), 0440U);
        EXPECT_EQ(disk::Read(store.Generation(name)), "a file");
    }
    EXPECT_EQ(TQClientManagedStorageGetGenerationOptions(handle, "copied", nullptr), 6U);
    EXPECT_EQ(TQClientManagedStorageGetGenerationOptions(handle, "moved", nullptr), 1U);
    EXPECT_TRUE(store.Remove({"file", "moved file"}) && unlink(store.Generation("none").c_str()) != 0);
    EXPECT_TRUE(_RemoveTree(store.Generation("\xff not UTF-8").c_str(), 0, nullptr) || !isRoot);
}

TEST_P(StoreAdd, RefusalLeavesTheStoreAndTheDocumentAsTheyWere)
{
    ASSERT_TRUE(store.Add("taken"));
    const std::string document = store.document(), fifo = store / "fifo", staged = "$/store/.vaultry_staging/*/staged";
    const std::string unreadable = disk::Write(store / "unreadable", "mine", 0200), tooLong(256, 'n'),
                      service = "duplix callback got an error what=";
    ASSERT_EQ(symlink(document.c_str(), (store / "link").c_str()) + mkfifo(fifo.c_str(), 0600), 0);
    const Snapshot before = Snapshot::Of(store.path(), kKept);
    for (const bool copy : {true, false}) {
        Expect({{Refused(105, "The supplied generation name was invalid"), Add(".x", document, copy)},
                {Refused(105, "The supplied generation name was invalid"), Add("a/b", document, copy)},
                {Refused(104, "The supplied generation name is too long"),
                 Add(std::string(1023 - store.root().size(), 'n'), document, copy)},
                {Refused(106, "path \"$/store/taken\" already exists"), Add("taken", document, copy)},
                {Refused(106, "path \"$/store/\" already exists"), Add("", document, copy)},
                {System(ENAMETOOLONG, "Failed to install generation; rename (\"" + staged + "\" -> \"$/store/" +
                                          tooLong + "\") failed"),
                 Add(tooLong, document, copy)},
                {Refused(105, "path \"$\" contains the store"), Add("g", store.path(), copy)},
                {Refused(105, "path \"$/store\" contains the store"), Add("g", store.root(), copy)},
                {Refused(105, "path \"/\" contains the store"), Add("g", "/", copy)},
                {System(ENOENT, copy     ? service + "0 stage=3 src=$/gone dst=" + staged
                                : isRoot ? "rename(\"$/gone\", \"" + staged + "\") failed"
                                         : "stat(\"$/gone\") failed"),
                 Add("g", store / "gone", copy)},
                {copy ? System(ENOTSUP, service + "1 stage=3 src=$/fifo dst=" + staged)
                      : System(EPERM, "failed to save original permissions for \"" + staged + "\""),
                 Add("g", fifo, copy)}});
        for (const char *none : {static_cast<const char *>(nullptr), ""})
            EXPECT_EQ(InChild(CALL(TQClientManagedStorageAdd(handle, "g", none, 0, why, copy))).status, 104);
        EXPECT_FALSE(TQClientManagedStorageAdd(handle, nullptr, document.c_str(), 0, nullptr, copy) ||
                     TQClientManagedStorageAdd(nullptr, "g", document.c_str(), 0, nullptr, copy));
        EXPECT_EQ(InChild(Add("g", store / "link", copy)).status, 104);
        EXPECT_EQ(InChild(Add("g", isRoot ? store / "link" : unreadable, copy)).status, isRoot ? 104 : 108);
        EXPECT_TRUE(Same(before, Snapshot::Of(store.path(), kKept)));
    }
    store.CheckInvariants();
}

// Once moved, it may be the only copy.
TEST_P(StoreAdd, AFailedMoveGivesTheDocumentBackWithAllItHad)
{
    const std::string program = disk::Read("/bin/sleep");
    const struct {
        const char *what;
        std::function<void(const char *path)> make;
        int error; // 0: this one can be kept
    } rows[] = {
        {"a link", [](const char *path) { (void)!symlink("a", path); }, ELOOP},
        {"a FIFO", [](const char *path) { mkfifo(path, 0640); }, EPERM},
        {"a running program", [&](const char *path) { disk::Write(path, program, 0755); }, ETXTBSY},
        {"no rights for its owner", [](const char *path) { disk::Write(path, "mine", 0); }, isRoot ? 0 : EACCES},
        {"no reading for its owner", [](const char *path) { disk::Write(path, "mine", 0200); }, isRoot ? 0 : EACCES},
        {"attribute space used up",
         [](const char *path) {
             int i = 0;
             disk::Write(path, "full");
             while (setxattr(path, ("user." + std::to_string(i)).c_str(), "", 0, 0) == 0 && i < 1000) ++i;
         },
         ENOSPC},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const std::string tree = MakeTree(row.what), bad = tree + "/bad";
        row.make(bad.c_str());
        pid_t running = 0;
        if (row.error == ETXTBSY && (running = vfork()) == 0) {
            execl(bad.c_str(), "sleep", "60", nullptr);
            _exit(1);
        }
        for (const char *item : {"/y", "/folder"})
            EXPECT_EQ(disk::SetFlags(tree + item, item[1] == 'y' ? FS_IMMUTABLE_FL : FS_APPEND_FL), canFlag);
        chmod(tree.c_str(), 0550);
        const Snapshot before = Snapshot::Of(store.path(), kKept);
        const Outcome outcome = InChild(Add("g", tree, /*copy=*/false));
        if (running > 0 && kill(running, SIGKILL) == 0) waitpid(running, nullptr, 0);
        // Not every file system bounds attributes.
        EXPECT_TRUE(outcome.underlying == row.error || (row.error == ENOSPC && outcome.succeeded)) << outcome.message;
        EXPECT_TRUE(outcome.succeeded ? store.Remove({"g"}) : Same(before, Snapshot::Of(store.path(), kKept)));
    }
    store.CheckInvariants();
}

// Killed, or with no way home, the document stays in staging with a note that says where it belongs.
TEST_P(StoreAdd, ADocumentThatCannotComeHomeStaysFindable)
{
    const Snapshot contents = Snapshot::Of(store.document(), Snapshot::kContents);
    for (const bool killed : {true, false}) {
        Fault fault = KillAfter(1, kRename);
        if (!killed) fault = {Fault::Act::FailFromThere, 2, EIO, kRename};
        const Outcome outcome = InChild(fault, CALL(store.Add("g", why, /*copy=*/false)));
        EXPECT_EQ(outcome.fate, killed ? Outcome::Fate::Killed : Outcome::Fate::Failed);
        const auto left = disk::List(store.Staging());
        ASSERT_EQ(left.size(), 1U);
        const std::string unique = store.Staging() + "/" + left[0], staged = unique + "/staged";
        EXPECT_EQ(disk::Attribute(unique, "com.corvane.vaultry.moved_from"), store.document());
        EXPECT_TRUE(Same(contents, Snapshot::Of(staged, Snapshot::kContents)));
        if (!killed)
            ExpectSays(outcome,
                       Logs(EIO, "Failed to give the document back to \"$/document\"; it lies at "
                                 "\"$/store/.vaultry_staging/*/staged\""),
                       store.path());
        store.CheckInvariants("", /*killed=*/true);
        chmod(staged.c_str(), 0755);
        EXPECT_EQ(rename(staged.c_str(), store.document().c_str()), 0);
        EXPECT_TRUE(TQClientManagedStorageCopyOutDone(handle, unique.c_str(), nullptr));
    }
}

TEST_P(StoreAdd, ADocumentThatChangesMeanwhileIsKeptWholeOrNotAtAll)
{
    const std::string tree = MakeTree("changing");
    const auto vanish = [](TQProgress *, void *where) {
        for (const char *name : {"/a", "/b", "/y", "/z"})
            unlink((*static_cast<const std::string *>(where) + name).c_str());
        (void)!truncate((*static_cast<const std::string *>(where) + "/folder/in").c_str(), 1 << 20);
    };
    for (const bool cancelled : {false, true}) {
        const auto progress = Ref<TQProgress>::Adopt(TQProgressCreate(1));
        TQProgressSetObserver(progress.get(), vanish, const_cast<std::string *>(&tree));
        if (cancelled) TQProgressCancel(progress.get());
        TQProgressBecomeCurrent(progress.get());
        OwnedError error;
        const bool added = Add("g", tree)(error.out());
        TQProgressResignCurrent(progress.get());
        EXPECT_EQ(added, disk::Exists(store.Generation("g"))) << error.description();
        EXPECT_EQ(error.status(), added ? 0 : cancelled ? 101 : 104) << error.description();
        EXPECT_TRUE(store.Remove({"g"}));
        store.CheckInvariants();
    }
}

TEST_P(StoreAdd, StagingPathsAreBoundedAndStayInStaging)
{
    const auto unique = [](const std::string &root) {
        return [root](TQError **error) {
            PathBuffer path;
            return _GetUniqueStagingPath(root.c_str(), path, error);
        };
    };
    const auto remove = [](const std::string &root, const std::string &path) {
        return [root, path](TQError **error) { return _RemoveStagingPath(root.c_str(), path.c_str(), error); };
    };
    const std::string root = store.root(), prefix = store.Staging() + "/",
                      deep = disk::MakeDirectoryOfLength(store.path(), 993);
    const std::string outside = "Staging path provided to remove was not in staging directory",
                      deepStaging = disk::MakeDirectory(deep + "/.vaultry_staging");
    Expect({{Failed(104, "staging path is too long"), unique("/" + std::string(998, 'd'))},
            {Failed(104, "path name is too long"), unique(deep)},
            {System(ENOENT, "mkdtemp(\"$/none/.vaultry_staging/XXXXXXX\") failed"), unique(store / "none")},
            {Failed(104, "path to staging is too long"), remove("/" + std::string(1005, 'd'), "x")},
            {Failed(101, outside), remove(root, store.document())},
            {Failed(101, outside), remove(root, store.Staging())},
            {Failed(104, "staging path to remove is too long"),
             remove(root, prefix + std::string(1000, 'u') + "/staged")}});
    EXPECT_THAT(disk::List(deepStaging), testing::IsEmpty());

    PathBuffer path;
    for (const bool whole : {true, false}) {
        ASSERT_TRUE(_GetUniqueStagingPath(root.c_str(), path, nullptr));
        EXPECT_THAT(path.c_str(), testing::MatchesRegex(prefix + "[A-Za-z0-9]{7}/staged"));
        const std::string directory(path.c_str(), prefix.size() + 7);
        EXPECT_TRUE(disk::Mode(directory) == 0700 && disk::List(directory).empty());
        EXPECT_TRUE(remove(root, prefix)(nullptr) && disk::Exists(directory)) << "the prefix alone removes nothing";
        disk::MakeDirectory(directory + "/staged", 0500);
        EXPECT_TRUE(remove(root, whole ? path.c_str() : directory)(nullptr) && !disk::Exists(directory));
    }
    for (const char *name : {"", "missing"}) {
        EXPECT_TRUE(_GetPathToGeneration(root.c_str(), name, /*mustExist=*/false, path, nullptr));
        EXPECT_EQ(path.c_str(), root + "/" + name);
    }
}

} // namespace
