#include "support/Tests.h"

namespace {

TEST(Restore, PassesOverAVolumeWithoutFlags)
{
    TestStore store(TestStore::Document::File);
    EXPECT_TRUE(store.Add("g"));
    const auto library =
        Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(store.root()).get(), nullptr));
    for (int nth = 1;; ++nth) {
        disk::SetFlags(store.document(), FS_NODUMP_FL);
        const Outcome outcome =
            InChild(FailCall(nth, ENOTSUP, kFlags),
                    CALL(TQLibraryRestoreGeneration(library.get(), String("g").get(), FileURL(store.document()).get(),
                                                    nullptr, why)));
        EXPECT_TRUE(outcome.succeeded) << outcome.message;
        if (!outcome.faultFired) break;
    }
}

} // namespace
