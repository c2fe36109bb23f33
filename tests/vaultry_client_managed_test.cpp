#include "vaultry_client_managed_staging.h"

#include "support/Tests.h"

namespace {

TEST(StoreLife, NullIsNoStoreNoNameAndNoDocument)
{
    const TestStore store;
    const TQClientManagedStorage *const s = store.handle();
    const char *const document = store.document().c_str();
    EXPECT_EQ(TQClientManagedStorageCreate(nullptr, nullptr), nullptr);
    TQClientManagedStorageFree(nullptr);
    EXPECT_EQ(TQClientManagedStorageCopyFindings(nullptr, true, nullptr), nullptr);
    EXPECT_EQ(TQClientManagedStorageCopyOperations(nullptr, nullptr), nullptr);
    EXPECT_FALSE(TQClientManagedStorageRemoveGenerationsUnless(nullptr, nullptr, nullptr, nullptr));
    EXPECT_FALSE(TQClientManagedStorageAdd(nullptr, "g", document, 0, nullptr, true) ||
                 TQClientManagedStorageAdd(s, nullptr, document, 0, nullptr, true) ||
                 TQClientManagedStorageAdd(s, "g", nullptr, 0, nullptr, true) ||
                 TQClientManagedStorageCopyGeneration(s, "g", nullptr, nullptr));
    EXPECT_EQ(InChild(CALL(TQClientManagedStorageRemoveGenerations(s, nullptr, why))).status, 105);
}

// All that one call removes is deleted when it has given the lock back, so it has to fit into one directory.
TEST(StoreStaging, HasAPlaceForEachOfAMillionRemovals)
{
    const TestStore store;
    StagingDirectory staging;
    ASSERT_TRUE(staging.Make(store.root().c_str(), OwnerNote::Of(Work::Remove, "g"), nullptr));
    EXPECT_STREQ(basename(staging.NextPlace()), kStagedName);
    std::string last;
    for (int places = 1; places <= 1000000; ++places) {
        const std::string name = basename(staging.NextPlace());
        ASSERT_TRUE(last < name && IsStagedName(name.c_str())) << last << ' ' << name;
        last = name;
    }
    staging.Keep();
}

} // namespace
