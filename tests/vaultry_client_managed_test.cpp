#include "vaultry_client_managed.h"

#include "support/Tests.h"

#include <sys/mount.h>

namespace {

struct StoreLife : InDirectory {};
INSTANTIATE_AS_EACH(StoreLife);

Operation Create(const std::string &root)
{
    return [root](TQError **error) {
        TQClientManagedStorage *store = TQClientManagedStorageCreate(root.c_str(), error);
        const bool made = store != nullptr && store->rootPath == root;
        TQClientManagedStorageFree(store);
        return made;
    };
}

TEST_P(StoreLife, CreationProtectsTheRootAndOpeningChangesNothing)
{
    const std::string root = Folder("root", 0777), staging = root + "/.vaultry_staging";
    ASSERT_TRUE(Create(root)(nullptr));
    EXPECT_THAT(disk::List(root), testing::ElementsAre(".vaultry_lockfile", ".vaultry_staging"));
    for (const auto &[path, mode] : {std::pair{root, 0555U}, {staging, 0700U}, {root + "/.vaultry_lockfile", 0400U}})
        EXPECT_EQ(disk::Mode(path), mode) << path;
    const Snapshot made = Now();
    EXPECT_TRUE(Create(root)(nullptr));
    EXPECT_TRUE(Same(made, Now()));

    // What is not whole is put right.
    chmod(root.c_str(), 0775);
    rmdir(staging.c_str());
    disk::Write(staging, "in the way");
    EXPECT_TRUE(Create(root)(nullptr)) << "what stands at the name of staging is not looked at";
    EXPECT_EQ(disk::Mode(root), 0555U);
    EXPECT_EQ(disk::Read(staging), "in the way");
    TQClientManagedStorageFree(nullptr);
}

TEST_P(StoreLife, WhatCannotBeAStoreIsRefused)
{
    const std::string plain = Folder("plain"), blocked = Folder("blocked"), missing = At("missing");
    Folder("blocked/.vaultry_lockfile");
    const std::string longLock = disk::MakeDirectoryOfLength(directory.path(), 1006), not_ = "The supplied path \"$/";
    const std::string longStaging = disk::MakeDirectoryOfLength(directory.path(), 1007);
    const Snapshot before = (File("file"), Link("link", plain), Now());
    Expect({{Failed(104, not_ + "missing\" does not exist"), Create(missing)},
            {Failed(104, not_ + "file\" does not exist"), Create(At("file"))},
            {Failed(104, not_ + "link\" does not exist"), Create(At("link"))},
            {Failed(104, "The supplied path \"\" does not exist"), CALL(TQClientManagedStorageCreate(nullptr, why))},
            {Refused(104, "failed to get staging dir path"), Create(longStaging)},
            {Refused(104, "The path to the store lock was too long"), Create(longLock)},
            {System(EPERM, "failed to unprotect store at \"$/plain\", chomd(0755) failed"), Create(plain),
             FailCall(1, EPERM, kMode)}});
    EXPECT_TRUE(Same(before, Now()));
    Expect({{Refused(104, "mkdir \"$/plain/.vaultry_staging\" failed"), Create(plain),
             FailCall(1, ENOSPC, kMakeDirectory)},
            {Refused(104, "Failed to create lock file at path \"$/blocked/.vaultry_lockfile\""), Create(blocked)}});
    EXPECT_EQ(disk::Mode(plain), 0755U) << "what is missing can then be put right";
    EXPECT_TRUE(Create(plain)(nullptr));
}

TEST_P(StoreLife, DestroyingTakesEverythingAndWaitsForNoLock)
{
    TestStore store;
    ASSERT_TRUE(store.Add("g"));
    EXPECT_EQ(disk::SetFlags(store.Generation("g"), FS_IMMUTABLE_FL), canFlag);
    StoreLock lock;
    ASSERT_TRUE(_WriteLockGenerationStore(store.root().c_str(), &lock, nullptr));
    for (int times = 0; times < 2; ++times) EXPECT_TRUE(TQClientManagedStorageDestroy(store.root().c_str(), nullptr));
    _UnlockGenerationStore(&lock);
    EXPECT_FALSE(disk::Exists(store.root()));
    ExpectRows({{System(ENOENT, "Failed to open generation path \"$/store/.vaultry_lockfile\" for locking"),
                 CALL(store.Add("g", why))}},
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
    EXPECT_TRUE(Create(root)(nullptr) && store.List().size() == 1 && store.CopyOut("g", store / "out"));
    ExpectRows({{System(EROFS, "mkdtemp(\"$/store/.vaultry_staging/XXXXXXX\") failed"), CALL(store.Add("h", why))}},
               store.path());
    EXPECT_EQ(umount(root), 0);
}

} // namespace
