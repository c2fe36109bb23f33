#include "Shared/vaultry_storage.h"
#include "support/Tests.h"

namespace {

struct Archive : InDirectory {};
INSTANTIATE_AS_EACH(Archive);

TEST_P(Archive, ReportsBytesAndStopsWhenCancelled)
{
    const std::string package = disk::MakePackage(At("package"));
    const int64_t total = TQComputeTreeSize(package.c_str(), nullptr);
    struct Seen {
        int64_t last, cancelAt;
        bool described;
        TQProgress *top;
        const std::string &package;
    };
    const auto observe = [](TQProgress *changed, void *context) {
        auto *seen = static_cast<Seen *>(context);
        if (changed == seen->top) return;
        EXPECT_GE(TQProgressGetCompletedUnits(changed), seen->last);
        // The files grow after they were measured.
        EXPECT_TRUE(seen->last > 0 ||
                    Shell(seen->package, "for file in run empty Data/everyone; do echo >>$file; done"));
        seen->last = TQProgressGetCompletedUnits(changed);
        const auto info = [&](const TQString *key) {
            return Ref<TQValue>::Adopt(TQProgressCopyUserInfo(changed, key));
        };
        const auto kind = Ref<TQString>::Adopt(TQProgressCopyKind(changed));
        seen->described &= TQProgressIsCancellable(changed) && TQEqual(kind.get(), kTQProgressKindFile) &&
                           TQEqual(info(kTQProgressFileOperationKindKey).get(), kTQProgressFileOperationKindCopying) &&
                           TQURLIsFileURL(static_cast<TQURL *>(info(kTQProgressFileURLKey).get()));
        if (seen->last >= seen->cancelAt) TQProgressCancel(seen->top);
    };
    for (const int64_t cancelAt : {total + 1, int64_t{1}}) {
        const auto progress = Ref<TQProgress>::Adopt(TQProgressCreate(1));
        Seen seen{0, cancelAt, true, progress.get(), package};
        TQProgressSetObserver(progress.get(), observe, &seen);
        TQProgressBecomeCurrent(progress.get());
        OwnedError error;
        const bool added = TQAddPathAsGeneration(package.c_str(), At(std::to_string(cancelAt)).c_str(), /*copy=*/true,
                                                 /*makeReadable=*/false, /*archive=*/true, error.out());
        TQProgressResignCurrent(progress.get());
        EXPECT_TRUE(seen.described && added == (cancelAt > total) && added == (seen.last == total)) << seen.last;
        if (added) continue;
        EXPECT_EQ(error.description(), "operation was cancelled by the user; error 125 (Operation canceled)");
        EXPECT_TRUE(error.status() == 101 && error.underlying() == ECANCELED);
    }
}

TEST(ArchiveCallbacks, KeepTheFirstError)
{
    DuplixState state;
    OwnedError adding, copyingOut;
    TQAddContext context{0, 1, 0, nullptr, adding.out()};
    TQError **const out = copyingOut.out();
    for (const int error : {EIO, EPERM}) {
        errno = error;
        EXPECT_EQ(_DuplixAddCallback(0, 3, &state, "/s", "/d", &context), 2);
        errno = error;
        EXPECT_EQ(_DuplixUnarchiveCallback(0, 3, &state, "/s", "/d", out), 2);
    }
    EXPECT_TRUE(adding.underlying() == EIO && copyingOut.underlying() == EIO);
}

} // namespace
