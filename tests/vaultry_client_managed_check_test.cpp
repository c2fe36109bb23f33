#include "support/Tests.h"

#include <sys/syscall.h>

namespace {

struct StoreCheck : InStore {};
INSTANTIATE_AS_EACH(StoreCheck);

TEST_P(StoreCheck, WhatCannotBeReadIsNeverWell)
{
    const auto key = String("vaultry.document");
    const auto document = Ref<TQData>::Adopt(TQDataCreate(store.document().data(), store.document().size()));
    EXPECT_TRUE(store.Add("g", nullptr, /*copy=*/true, 6) &&
                TQSetInfoValue(store.Generation("g").c_str(), key.get(), document.get(), nullptr));
    int well = 0;
    for (int nth = 1;; ++nth) {
        const Calls reading{SYS_openat, SYS_getdents64, SYS_getxattr, SYS_lgetxattr, SYS_fgetxattr};
        const Outcome outcome = InChild(FailCall(nth, EIO, reading), [&](TQError **error) {
            const auto found =
                Ref<TQArray>::Adopt(TQClientManagedStorageCopyFindings(store.root().c_str(), /*repair=*/false, error));
            return found && TQArrayGetCount(found.get()) == 0;
        });
        well += outcome.succeeded;
        if (!outcome.faultFired) break;
    }
    EXPECT_EQ(well, 1) << "only when nothing failed";
}

} // namespace
