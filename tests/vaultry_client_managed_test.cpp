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
    EXPECT_FALSE(TQClientManagedStorageAdd(nullptr, "g", document, 0, nullptr, true) ||
                 TQClientManagedStorageAdd(s, nullptr, document, 0, nullptr, true) ||
                 TQClientManagedStorageAdd(s, "g", nullptr, 0, nullptr, true) ||
                 TQClientManagedStorageCopyGeneration(s, "g", nullptr, nullptr));
    EXPECT_EQ(InChild(CALL(TQClientManagedStorageRemoveGenerations(s, nullptr, why))).status, 105);
}

} // namespace
