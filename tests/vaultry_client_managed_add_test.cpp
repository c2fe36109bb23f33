#include "support/Identity.h"
#include "support/Store.h"
#include "vaultry_client_managed.h"

#include <vaultry/archive.h>
#include <vaultry/progress.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

class StoreAdd : public AsEach {
protected:
    Operation Add(const std::string &name, const std::string &source, bool copy = true) const
    {
        return [this, name, source, copy](TQError **error) {
            return TQClientManagedStorageAdd(store.handle(), name.c_str(), source.c_str(), 0, error, copy);
        };
    }
    // A tree whose one bad item comes among good ones that are archived before or after it.
    std::string MakeTreeWith(const std::string &name, const std::function<void(const std::string &path)> &bad) const
    {
        const std::string tree = disk::MakeDirectory(store / name);
        for (const char *item : {"/a", "/b", "/y", "/z"}) disk::Write(tree + item, "good", 0664);
        disk::MakeDirectory(tree + "/folder", 0770);
        disk::Write(tree + "/folder/in", "good");
        bad(tree + "/bad");
        return tree;
    }

    TestStore store;
};
INSTANTIATE_AS_EACH(StoreAdd);

TEST_P(StoreAdd, CopyingLeavesTheDocumentAndMovingTakesIt)
{
    const std::string file = disk::Write(store / "file", "a file", 0640);
    const Snapshot document = Snapshot::Of(store.document(), Snapshot::kUntouched);
    OwnedError error;
    EXPECT_TRUE(store.Add("copied", error.out(), true, 6)) << error.description();
    EXPECT_TRUE(Same(document, Snapshot::Of(store.document(), Snapshot::kUntouched)));
    EXPECT_TRUE(store.Add("moved", error.out(), false, 0x20)) << error.description();
    EXPECT_FALSE(disk::Exists(store.document()));
    for (const bool copy : {true, false})
        EXPECT_TRUE(
            TQClientManagedStorageAdd(store.handle(), copy ? "file" : "moved file", file.c_str(), 0, error.out(), copy))
            << error.description();
    EXPECT_THAT(store.List(), testing::ElementsAre("copied", "file", "moved", "moved file"));
    for (const char *name : {"copied", "moved"}) EXPECT_EQ(disk::Mode(store.Generation(name)), 0555U);
    for (const char *name : {"file", "moved file"}) {
        EXPECT_EQ(disk::Mode(store.Generation(name)), 0440U);
        EXPECT_EQ(disk::Read(store.Generation(name)), "a file");
    }
    EXPECT_EQ(TQClientManagedStorageGetGenerationOptions(store.handle(), "copied", nullptr), 6U);
    EXPECT_EQ(TQClientManagedStorageGetGenerationOptions(store.handle(), "moved", nullptr), 1U);
    EXPECT_TRUE(store.Remove({"file", "moved file"}));
    store.CheckInvariants();
}

TEST_P(StoreAdd, RefusalLeavesTheStoreAndTheDocumentAsTheyWere)
{
    ASSERT_TRUE(store.Add("taken"));
    const std::string longest(254, 'n'), document = store.document(), above = store / "above";
    ASSERT_EQ(symlink(document.c_str(), (store / "link").c_str()), 0);
    ASSERT_EQ(mkfifo((store / "fifo").c_str(), 0600), 0);
    const std::string nearest = std::string("duplix callback got an error what=");
    const bool root = GetParam() == As::Root;
    const auto unreadable = disk::Write(store / "unreadable", "mine", 0200);
    const Snapshot before = Snapshot::Of(store.path(), Snapshot::kContents | Snapshot::kRights);
    for (const bool copy : {true, false}) {
        const auto gone = copy
                              ? System(ENOENT, nearest + "0 stage=3 src=$/gone dst=$/store/.vaultry_staging/*/staged")
                              : System(ENOENT, root ? "rename(\"$/gone\", \"$/store/.vaultry_staging/*/staged\") failed"
                                                    : "stat(\"$/gone\") failed");
        ExpectRows(
            {{"hidden", Refused(105, "The supplied generation name was invalid"), Add(".x", document, copy)},
             {"two components", Refused(105, "The supplied generation name was invalid"), Add("a/b", document, copy)},
             {"path too long", Refused(104, "The supplied generation name is too long"),
              Add(std::string(1024 - store.root().size() - 1, 'n'), document, copy)},
             {"taken", Refused(106, "path \"$/store/taken\" already exists"), Add("taken", document, copy)},
             {"no name", Refused(106, "path \"$/store/\" already exists"), Add("", document, copy)},
             {"256 bytes",
              System(ENAMETOOLONG,
                     "Failed to install generation; rename (\"$/store/.vaultry_staging/*/staged\" -> \"$/store/" +
                         longest + "nn\") failed"),
              Add(longest + "nn", document, copy)},
             {"no source", gone, Add("g", store / "gone", copy)},
             {"contains the store", Refused(105, "path \"$\" contains the store"), Add("g", store.path(), copy)},
             {"the store", Refused(105, "path \"$/store\" contains the store"), Add("g", store.root(), copy)},
             {"everything", Refused(105, "path \"/\" contains the store"), Add("g", "/", copy)},
             {"FIFO",
              copy ? System(ENOTSUP, nearest + "1 stage=3 src=$/fifo dst=$/store/.vaultry_staging/*/staged")
                   : System(EPERM, "failed to save original permissions for \"$/store/.vaultry_staging/*/staged\""),
              Add("g", store / "fifo", copy)}},
            store.path());
        for (const char *name : {".x", "a/b", "taken"})
            EXPECT_FALSE(TQClientManagedStorageAdd(store.handle(), name, document.c_str(), 0, nullptr, copy));
        for (const char *none : {static_cast<const char *>(nullptr), ""}) {
            const Outcome outcome = InChild([&](TQError **error) {
                return TQClientManagedStorageAdd(store.handle(), "g", none, 0, error, copy) ||
                       TQClientManagedStorageAdd(store.handle(), nullptr, document.c_str(), 0, nullptr, copy) ||
                       TQClientManagedStorageAdd(nullptr, "g", document.c_str(), 0, nullptr, copy);
            });
            EXPECT_TRUE(outcome.hasError && outcome.status == 104) << outcome.message;
        }
        const Outcome link = InChild(Add("g", store / "link", copy));
        EXPECT_EQ(link.status, 104) << link.message;
        EXPECT_EQ(InChild(Add("g", root ? store / "link" : unreadable, copy)).status, root ? 104 : 108);
        EXPECT_TRUE(Same(before, Snapshot::Of(store.path(), Snapshot::kContents | Snapshot::kRights)));
    }
    store.CheckInvariants();
    EXPECT_TRUE(Add(longest, document)(nullptr)) << "254 bytes are a name";
    EXPECT_TRUE(Add("\xff not UTF-8", document)(nullptr));
}

// Once moved, it may be the only copy.
TEST_P(StoreAdd, AFailedMoveGivesTheDocumentBackWithAllItHad)
{
    const bool immutable = store.directory().CanSetImmutable();
    const auto fill = [](const std::string &path) {
        disk::Write(path, "full");
        for (int i = 0; setxattr(path.c_str(), ("user.fill" + std::to_string(i)).c_str(), "", 0, 0) == 0 && i < 5000;)
            ++i;
    };
    const struct {
        const char *what;
        std::function<void(const std::string &)> bad;
        int error; // 0: this one can be kept
    } rows[] = {
        {"a link", [](const auto &path) { EXPECT_EQ(symlink("a", path.c_str()), 0); }, ELOOP},
        {"a FIFO", [](const auto &path) { EXPECT_EQ(mkfifo(path.c_str(), 0640), 0); }, EPERM},
        {"a running program", [](const auto &path) { disk::Write(path, disk::Read("/bin/sleep"), 0755); }, ETXTBSY},
        {"no rights for its owner", [](const auto &path) { disk::Write(path, "mine", 0); },
         GetParam() == As::Root ? 0 : EACCES},
        {"no reading for its owner", [](const auto &path) { disk::Write(path, "mine", 0200); },
         GetParam() == As::Root ? 0 : EACCES},
        {"attribute space used up", fill, ENOSPC},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const std::string tree = MakeTreeWith(row.what, row.bad);
        const std::string program = tree + "/bad";
        pid_t running = 0;
        if (row.error == ETXTBSY && (running = vfork()) == 0) {
            execl(program.c_str(), "sleep", "60", nullptr);
            _exit(1);
        }
        for (const char *item : {"/y", "/folder"})
            EXPECT_EQ(disk::SetFlags(tree + item, item[1] == 'y' ? FS_IMMUTABLE_FL : FS_APPEND_FL), immutable);
        chmod(tree.c_str(), 0550);
        const Snapshot before = Snapshot::Of(store.path(), Snapshot::kContents | Snapshot::kRights);
        const Outcome outcome = InChild(Add("g", tree, /*copy=*/false));
        if (running > 0 && kill(running, SIGKILL) == 0) waitpid(running, nullptr, 0);
        if (row.error == ENOSPC && outcome.succeeded) continue; // not every file system bounds them
        EXPECT_EQ(outcome.underlying, row.error) << outcome.message;
        EXPECT_EQ(outcome.succeeded, row.error == 0);
        if (!outcome.succeeded)
            EXPECT_TRUE(Same(before, Snapshot::Of(store.path(), Snapshot::kContents | Snapshot::kRights)));
        else
            EXPECT_TRUE(store.Remove({"g"}));
    }
    store.CheckInvariants();
}

// A kill leaves the document in staging, with a note that says where it belongs.
TEST_P(StoreAdd, AKillInTheMiddleOfAMoveLeavesTheDocumentFindable)
{
    const Snapshot contents = Snapshot::Of(store.document(), Snapshot::kContents);
    const Outcome outcome =
        InChild(KillAfter(1, kRename), [&](TQError **error) { return store.Add("g", error, /*copy=*/false); });
    EXPECT_EQ(outcome.fate, Outcome::Fate::Killed);
    const auto left = disk::List(store.Staging());
    ASSERT_EQ(left.size(), 1U);
    const std::string unique = store.Staging() + "/" + left[0];
    EXPECT_EQ(disk::Attribute(unique, "com.corvane.vaultry.moved_from"), store.document());
    EXPECT_TRUE(Same(contents, Snapshot::Of(unique + "/staged", Snapshot::kContents)));
    store.CheckInvariants("g", /*killed=*/true);
}

TEST_P(StoreAdd, ADocumentThatChangesMeanwhileIsKeptWholeOrNotAtAll)
{
    const std::string tree = MakeTreeWith("changing", [](const std::string &path) { disk::Write(path, "x"); });
    const auto vanish = [](TQProgress *, void *where) {
        for (const char *name : {"/a", "/b", "/bad", "/y", "/z"}) {
            unlink((*static_cast<std::string *>(where) + name).c_str());
            (void)!truncate((*static_cast<std::string *>(where) + "/folder/in").c_str(), 1 << 20);
        }
    };
    const auto progress = Ref<TQProgress>::Adopt(TQProgressCreate(1));
    std::string where = tree;
    TQProgressSetObserver(progress.get(), vanish, &where);
    TQProgressBecomeCurrent(progress.get());
    OwnedError error;
    const bool added = Add("g", tree)(error.out());
    TQProgressResignCurrent(progress.get());
    EXPECT_EQ(added, disk::Exists(store.Generation("g"))) << error.description();
    EXPECT_TRUE(added || error.status() == 104) << error.description();
    EXPECT_TRUE(store.Remove({"g"}));
    store.CheckInvariants();
}

TEST_P(StoreAdd, CancellingLeavesNothingBehind)
{
    const auto progress = Ref<TQProgress>::Adopt(TQProgressCreate(1));
    TQProgressCancel(progress.get());
    TQProgressBecomeCurrent(progress.get());
    ExpectRows({{"cancelled", System(ECANCELED, "operation was cancelled by the user"), Add("g", store.document())}},
               store.path());
    TQProgressResignCurrent(progress.get());
    EXPECT_THAT(store.List(), testing::IsEmpty());
    store.CheckInvariants();
}

TEST_P(StoreAdd, StagingPathsAreBoundedAndStayInStaging)
{
    const auto unique = [](const std::string &root) {
        return [root](TQError **error) {
            PathBuffer path;
            return _GetUniqueStagingPath(root.c_str(), path, error);
        };
    };
    const auto remove = [&](const std::string &root, const std::string &path) {
        return [root, path](TQError **error) { return _RemoveStagingPath(root.c_str(), path.c_str(), error); };
    };
    const std::string root = store.root(), prefix = store.Staging() + "/",
                      deep = disk::MakeDirectoryOfLength(store.path(), 993);
    disk::MakeDirectory(deep + "/.vaultry_staging");
    const std::string outside = "Staging path provided to remove was not in staging directory";
    ExpectRows(
        {{"no room for the unique name", Failed(104, "staging path is too long"), unique("/" + std::string(998, 'd'))},
         {"no room for the item", Failed(104, "path name is too long"), unique(deep)},
         {"no staging", System(ENOENT, "mkdtemp(\"$/none/.vaultry_staging/XXXXXXX\") failed"), unique(store / "none")},
         {"no room for the prefix", Failed(104, "path to staging is too long"),
          remove("/" + std::string(1005, 'd'), "x")},
         {"elsewhere", Failed(101, outside), remove(root, store.document())},
         {"staging itself", Failed(101, outside), remove(root, store.Staging())},
         {"a unique part too long", Failed(104, "staging path to remove is too long"),
          remove(root, prefix + std::string(1000, 'u') + "/staged")}},
        store.path());
    EXPECT_THAT(disk::List(deep + "/.vaultry_staging"), testing::IsEmpty());

    PathBuffer path;
    for (const bool whole : {true, false}) {
        ASSERT_TRUE(_GetUniqueStagingPath(root.c_str(), path, nullptr));
        EXPECT_THAT(path.c_str(), testing::MatchesRegex(prefix + "[A-Za-z0-9]{7}/staged"));
        EXPECT_FALSE(disk::Exists(path.c_str()));
        const std::string directory(path.c_str(), prefix.size() + 7);
        EXPECT_EQ(disk::Mode(directory), 0700U);
        EXPECT_TRUE(remove(root, prefix)(nullptr));
        EXPECT_TRUE(disk::Exists(directory)) << "the prefix alone removes nothing";
        disk::MakeDirectory(directory + "/staged", 0500);
        EXPECT_TRUE(remove(root, whole ? path.c_str() : directory)(nullptr));
        EXPECT_FALSE(disk::Exists(directory));
    }
    EXPECT_TRUE(disk::Exists(store.document()));

    const std::pair<const char *, bool> names[] = {{"g", true}, {"", true}, {"missing", false}};
    for (const auto &[name, found] : names)
        EXPECT_TRUE(_GetPathToGeneration(root.c_str(), name, /*mustExist=*/false, path, nullptr)) << name;
    EXPECT_EQ(path.c_str(), root + "/missing");
}

} // namespace
