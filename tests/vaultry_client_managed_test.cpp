#include "support/Identity.h"
#include "support/Store.h"
#include "vaultry_client_managed.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

Operation Create(const std::string &root)
{
    return [root](TQError **error) {
        TQClientManagedStorage *store = TQClientManagedStorageCreate(root.c_str(), error);
        const bool made = store != nullptr && store->rootPath == root;
        TQClientManagedStorageFree(store);
        return made;
    };
}

class StoreLife : public AsEach {
protected:
    TempDirectory directory;
};
INSTANTIATE_AS_EACH(StoreLife);

TEST_P(StoreLife, CreationProtectsTheRootAndOpeningChangesNothing)
{
    const std::string root = disk::MakeDirectory(directory / "root", 0777);
    OwnedError error;
    ASSERT_TRUE(Create(root)(error.out())) << error.description();
    const Snapshot made = Snapshot::Of(root, Snapshot::kUntouched);
    EXPECT_THAT(disk::List(root), testing::ElementsAre(".vaultry_lockfile", ".vaultry_staging"));
    EXPECT_EQ(disk::Mode(root), 0555U);
    EXPECT_EQ(disk::Mode(root + "/.vaultry_staging"), 0700U);
    EXPECT_EQ(disk::Mode(root + "/.vaultry_lockfile"), 0400U);
    EXPECT_TRUE(Create(root)(error.out())) << error.description();
    EXPECT_TRUE(Same(made, Snapshot::Of(root, Snapshot::kUntouched)));

    // Whatever is not whole is put right.
    chmod(root.c_str(), 0775);
    EXPECT_TRUE(Create(root)(error.out())) << error.description();
    EXPECT_EQ(disk::Mode(root), 0555U);
    chmod(root.c_str(), 0755);
    rmdir((root + "/.vaultry_staging").c_str());
    disk::Write(root + "/.vaultry_staging", "in the way");
    EXPECT_TRUE(Create(root)(error.out())) << "what stands at the name of staging is not looked at";
    EXPECT_EQ(disk::Read(root + "/.vaultry_staging"), "in the way");
    TQClientManagedStorageFree(nullptr);
}

TEST_P(StoreLife, WhatCannotBeAStoreIsRefused)
{
    const auto path = [&](const char *name) { return directory / name; };
    disk::Write(path("file"), "");
    ASSERT_EQ(symlink(disk::MakeDirectory(path("plain")).c_str(), path("link").c_str()), 0);
    disk::MakeDirectory(disk::MakeDirectory(path("blocked")) + "/.vaultry_lockfile");
    const std::string longLock = disk::MakeDirectoryOfLength(directory.path(), 1006);
    const std::string longStaging = disk::MakeDirectoryOfLength(directory.path(), 1007);
    const Snapshot before = Snapshot::Of(directory.path(), Snapshot::kUntouched);
    ExpectRows({{"missing", Failed(104, "The supplied path \"$/missing\" does not exist"), Create(path("missing"))},
                {"a file", Failed(104, "The supplied path \"$/file\" does not exist"), Create(path("file"))},
                {"a link", Failed(104, "The supplied path \"$/link\" does not exist"), Create(path("link"))},
                {"no room for staging", Refused(104, "failed to get staging dir path"), Create(longStaging)},
                {"no room for the lock", Refused(104, "The path to the store lock was too long"), Create(longLock)},
                {"null", Failed(104, "The supplied path \"\" does not exist"),
                 [](TQError **error) { return TQClientManagedStorageCreate(nullptr, error) != nullptr; }},
                {"somebody else's", System(EPERM, "failed to unprotect store at \"$/plain\", chomd(0755) failed"),
                 Create(path("plain")), FailCall(1, EPERM, kMode)}},
               directory.path());
    EXPECT_TRUE(Same(before, Snapshot::Of(directory.path(), Snapshot::kUntouched)));

    // What is missing can then be put right: the root stays writable for its owner.
    ExpectRows({{"staging", Refused(104, "mkdir \"$/plain/.vaultry_staging\" failed"), Create(path("plain")),
                 FailCall(1, ENOSPC, kMakeDirectory)},
                {"lock file", Refused(104, "Failed to create lock file at path \"$/blocked/.vaultry_lockfile\""),
                 Create(path("blocked"))}},
               directory.path());
    EXPECT_EQ(disk::Mode(path("plain")), 0755U);
    EXPECT_EQ(disk::Mode(path("blocked")), 0755U);
    if (kCanFailAllocations && Create(path("plain"))(nullptr))
        ExpectRows({{"no memory", Failed(101, "malloc failed"), Create(path("plain")), FailAllocation(1)}},
                   directory.path());

    const std::string missing = path("missing");
    ExpectRows({{"unprotect", System(ENOENT, "failed to unprotect store at \"$/missing\", stat failed"),
                 [&](TQError **error) { return _UnprotectGenerationStore(missing.c_str(), error); }},
                {"protect", Logs(ENOENT, "failed to protect store at \"$/missing\", stat failed"),
                 [&](TQError **) { return _ProtectGenerationStore(missing.c_str()), true; }},
                {"protect's chmod", Logs(EPERM, "failed to protect store at \"$/blocked\", chomd(0555) failed"),
                 [&](TQError **) { return _ProtectGenerationStore(path("blocked").c_str()), true; },
                 FailCall(1, EPERM, kMode)}},
               directory.path());
}

TEST_P(StoreLife, ProtectionIsLiftedForTheOwnerAloneAndTakenFromAll)
{
    const std::string root = disk::MakeDirectory(directory / "root", 0577);
    for (const mode_t wanted : {0777U, 0777U}) {
        EXPECT_TRUE(_UnprotectGenerationStore(root.c_str(), nullptr));
        EXPECT_EQ(disk::Mode(root), wanted);
    }
    _ProtectGenerationStore(root.c_str());
    EXPECT_EQ(disk::Mode(root), 0555U);
    EXPECT_EQ(InChild(CountCalls(kMode), [&](TQError **) { return _ProtectGenerationStore(root.c_str()), true; }).count,
              0);
    EXPECT_EQ(
        InChild(CountCalls(kMode), [&](TQError **) { return _UnprotectGenerationStore(root.c_str(), nullptr); }).count,
        1);
    EXPECT_EQ(
        InChild(CountCalls(kMode), [&](TQError **) { return _UnprotectGenerationStore(root.c_str(), nullptr); }).count,
        1)
        << "always, also when it is writable";
}

TEST_P(StoreLife, DestroyingTakesEverything)
{
    TestStore store;
    OwnedError error;
    ASSERT_TRUE(store.Add("g", error.out())) << error.description();
    EXPECT_EQ(disk::SetFlags(store.Generation("g"), FS_IMMUTABLE_FL), store.directory().CanSetImmutable());
    StoreLock lock;
    ASSERT_TRUE(_WriteLockGenerationStore(store.root().c_str(), &lock, nullptr));
    EXPECT_TRUE(TQClientManagedStorageDestroy(store.root().c_str(), error.out())) << "it waits for no lock";
    _UnlockGenerationStore(&lock);
    EXPECT_FALSE(disk::Exists(store.root()));
    EXPECT_TRUE(TQClientManagedStorageDestroy(store.root().c_str(), error.out())) << "gone already";
    ExpectRows({{"every operation needs its lock file",
                 System(ENOENT, "Failed to open generation path \"$/store/.vaultry_lockfile\" for locking"),
                 [&](TQError **e) { return store.Add("g", e); }}},
               store.path());
}

TEST(StoreOnAReadOnlyMount, IsReadAndNothingElse)
{
    if (!CanBe(As::Root)) GTEST_SKIP() << "only root mounts";
    TestStore store;
    ASSERT_TRUE(store.Add("g"));
    const char *const root = store.root().c_str();
    if (mount(root, root, nullptr, MS_BIND, nullptr) != 0) GTEST_SKIP() << "mounts are refused here";
    ASSERT_EQ(mount(nullptr, root, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    OwnedError error;
    EXPECT_TRUE(Create(store.root())(error.out())) << error.description();
    EXPECT_THAT(store.List(), testing::ElementsAre("g"));
    EXPECT_TRUE(store.CopyOut("g", store / "out", error.out())) << error.description();
    ExpectRows({{"add", System(EROFS, "mkdtemp(\"$/store/.vaultry_staging/XXXXXXX\") failed"),
                 [&](TQError **e) { return store.Add("h", e); }}},
               store.path());
    EXPECT_EQ(umount(root), 0);
}

TEST(StoreOfAnotherUser, IsRefusedToAnOrdinaryOne)
{
    if (!CanBe(As::Root)) GTEST_SKIP() << "only root can be two users";
    std::optional<Impersonate> owner(std::in_place, As::User, kOtherUser);
    TestStore store;
    ASSERT_TRUE(store.Add("g"));
    chmod(store.path().c_str(), 0755);
    owner.reset();
    {
        const Impersonate other(As::User);
        ExpectRows({{"use", System(EACCES, "Failed to open generation path \"$/store/.vaultry_lockfile\" for locking"),
                     [&](TQError **e) { return store.CopyOut("g", "/nowhere", e); }},
                    {"opening", System(EPERM, "failed to unprotect store at \"$/store\", chomd(0755) failed"),
                     Create(store.root())}},
                   store.path());
    }
    store.CheckInvariants();
}

} // namespace
