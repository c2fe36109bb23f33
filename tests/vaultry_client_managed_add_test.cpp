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
        for (const char *item : {"/a", "/z"}) disk::Write(tree + item, "good", 0664);
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
    EXPECT_TRUE(store.Add("copied", error.out()) && Add(longest, store.document())(error.out())) << error.description();
    EXPECT_TRUE(Same(before, Snapshot::Of(store.document(), Snapshot::kUntouched)));
    EXPECT_TRUE(store.Add("moved", error.out(), false) && Add("file", file, false)(error.out())) << error.description();
    EXPECT_FALSE(disk::Exists(store.document()) || disk::Exists(file));
    EXPECT_TRUE(disk::Mode(store.Generation("file")) == 0440 && disk::Read(store.Generation("file")) == "a file");
    EXPECT_TRUE(store.Remove({"file"}));
    store.CheckInvariants();
}

TEST_P(StoreAdd, RefusalLeavesTheStoreAndTheDocumentAsTheyWere)
{
    ASSERT_TRUE(store.Add("taken"));
    const std::string document = store.document(), room(1023 - store.root().size(), 'n');
    const std::string unreadable = disk::Write(store / "unreadable", "mine", 0200);
    ASSERT_EQ(symlink(document.c_str(), (store / "link").c_str()) + mkfifo((store / "fifo").c_str(), 0600), 0);
    const Snapshot before = Snapshot::Of(store.path(), kKept);
    for (const bool copy : {true, false}) {
        Expect({{Refused(105, "The supplied generation name was invalid"), Add(".x", document, copy)},
                {Refused(105, "The supplied generation name was invalid"), Add("a/b", document, copy)},
                {Refused(104, "The supplied generation name is too long"), Add(room, document, copy)},
                {Refused(105, "The supplied generation name is too long"), Add(room.substr(0, 255), document, copy)},
                {Refused(106, "path \"$/store/taken\" already exists"), Add("taken", document, copy)},
                {Refused(106, "path \"$/store/\" already exists"), Add("", document, copy)},
                {Refused(105, "path \"$\" contains the store"), Add("g", store.path(), copy)},
                {Refused(105, "path \"$/store\" contains the store"), Add("g", store.root(), copy)}});
        if (!copy) Expect({{Refused(104, "path \"document\" is not absolute"), Add("g", "document", copy)}});
        for (const char *none : {static_cast<const char *>(nullptr), ""})
            EXPECT_EQ(InChild(CALL(TQClientManagedStorageAdd(handle, "g", none, 0, why, copy))).status, 104);
        EXPECT_FALSE(TQClientManagedStorageAdd(handle, nullptr, document.c_str(), 0, nullptr, copy) ||
                     TQClientManagedStorageAdd(nullptr, "g", document.c_str(), 0, nullptr, copy));
        for (const auto &[name, status] : {std::pair{"link", 104},
                                           {"gone", 104},
                                           {"fifo", copy ? 107 : 108},
                                           {isRoot ? "gone" : "unreadable", isRoot ? 104 : 108}})
            EXPECT_EQ(InChild(Add("g", store / name, copy)).status, status) << name;
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
        {"a running program", [&](const char *path) { disk::Write(path, program, 0755); }, ETXTBSY},
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
        EXPECT_EQ(disk::SetFlags(tree + "/z", FS_IMMUTABLE_FL), canFlag);
        EXPECT_EQ(disk::SetFlags(tree + "/folder", FS_APPEND_FL), canFlag);
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

TEST_P(StoreAdd, ADocumentThatCannotComeHomeStaysInStagingWithANote)
{
    const Outcome outcome = InChild(FailFromCallOn(2, EIO, kRename), CALL(store.Add("g", why, /*copy=*/false)));
    EXPECT_EQ(outcome.fate, Outcome::Fate::Failed);
    ExpectSays(outcome,
               Logs(EIO, "Failed to give the document back to \"$/document\"; it lies at "
                         "\"$/store/.vaultry_staging/*/staged\""),
               store.path());
    const auto left = disk::List(store.Staging());
    ASSERT_EQ(left.size(), 1U);
    const std::string unique = store.Staging() + "/" + left[0];
    EXPECT_EQ(disk::Attribute(unique, "com.corvane.vaultry.moved_from"), store.document());
    EXPECT_TRUE(Same(store.contents(), Snapshot::Of(unique + "/staged", Snapshot::kContents)));
    store.CheckInvariants("", /*killed=*/true);
}

TEST_P(StoreAdd, ADocumentThatChangesMeanwhileIsKeptWholeOrNotAtAll)
{
    const std::string tree = MakeTree("changing");
    const auto vanish = [](TQProgress *, void *where) {
        for (const char *name : {"/a", "/z"}) unlink((*static_cast<const std::string *>(where) + name).c_str());
    };
    const auto progress = Ref<TQProgress>::Adopt(TQProgressCreate(1));
    TQProgressSetObserver(progress.get(), vanish, const_cast<std::string *>(&tree));
    TQProgressBecomeCurrent(progress.get());
    OwnedError error;
    const bool added = Add("g", tree)(error.out());
    TQProgressResignCurrent(progress.get());
    EXPECT_EQ(added, disk::Exists(store.Generation("g"))) << error.description();
    EXPECT_EQ(error.status(), added ? 0 : 104) << error.description();
    EXPECT_TRUE(store.Remove({"g"}));
    store.CheckInvariants();
}

TEST_P(StoreAdd, StagingPathsAreBoundedAndStayInStaging)
{
    PathBuffer path;
    const auto unique = [&](const std::string &root) {
        return CALL(_GetUniqueStagingPath(root.c_str(), path, why))(nullptr);
    };
    const std::string root = store.root(), deep = disk::MakeDirectoryOfLength(store.path(), 993);
    disk::MakeDirectory(deep + "/.vaultry_staging");
    EXPECT_FALSE(unique("/" + std::string(998, 'd')) || unique(deep) || unique(store / "none"));
    EXPECT_THAT(disk::List(deep + "/.vaultry_staging"), testing::IsEmpty());
    for (const bool whole : {true, false}) {
        ASSERT_TRUE(unique(root));
        const std::string directory(path.c_str(), store.Staging().size() + 8), staged = directory + "/staged";
        EXPECT_EQ(path.c_str(), staged);
        EXPECT_TRUE(disk::Mode(directory) == 0700 && disk::List(directory).empty());
        disk::MakeDirectory(staged, 0500);
        EXPECT_TRUE(_RemoveStagingPath(root.c_str(), (whole ? staged : directory).c_str(), nullptr));
        EXPECT_FALSE(disk::Exists(directory));
    }
    for (const char *name : {"", "missing"}) {
        EXPECT_TRUE(_GetPathToGeneration(root.c_str(), name, /*mustExist=*/false, path, nullptr));
        EXPECT_EQ(path.c_str(), root + "/" + name);
    }
}

} // namespace
