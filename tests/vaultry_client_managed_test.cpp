#include "support/Tests.h"

namespace {

Operation Create(const std::string &root)
{
    return [root](TQError **error) {
        TQClientManagedStorage *store = TQClientManagedStorageCreate(root.c_str(), error);
        TQClientManagedStorageFree(store);
        return store != nullptr;
    };
}

TEST(StoreLife, WhatIsMissingAfterAFailureCanBePutRight)
{
    const TempDirectory directory;
    const std::string root = disk::MakeDirectory(directory / "store");
    ExpectRows({{System(EPERM, "failed to unprotect store at \"$/store\", chomd(0755) failed"), Create(root),
                 FailCall(1, EPERM, kMode)},
                {Refused(104, "mkdir \"$/store/.vaultry_staging\" failed"), Create(root),
                 FailCall(1, ENOSPC, kMakeDirectory)}},
               directory.path());
    EXPECT_EQ(disk::Mode(root), 0755U);
    EXPECT_TRUE(Create(root)(nullptr));
}

TEST(StoreLife, NullIsNoStoreNoNameAndNoDocument)
{
    const TestStore store;
    const TQClientManagedStorage *const s = store.handle();
    const char *const document = store.document().c_str();
    EXPECT_EQ(TQClientManagedStorageCreate(nullptr, nullptr), nullptr);
    TQClientManagedStorageFree(nullptr);
    EXPECT_FALSE(TQClientManagedStorageAdd(nullptr, "g", document, 0, nullptr, true) ||
                 TQClientManagedStorageAdd(s, nullptr, document, 0, nullptr, true) ||
                 TQClientManagedStorageAdd(s, "g", nullptr, 0, nullptr, true) ||
                 TQClientManagedStorageCopyGeneration(s, "g", nullptr, nullptr));
    EXPECT_EQ(InChild(CALL(TQClientManagedStorageRemoveGenerations(s, nullptr, why))).status, 105);
}

} // namespace
