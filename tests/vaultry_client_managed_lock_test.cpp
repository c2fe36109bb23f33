#include "vaultry_client_managed.h"

#include "support/Tests.h"

#include <sys/file.h>

namespace {

TEST(StoreLocks, ReportMisuseAndFailure)
{
    TestStore store;
    const std::string path = store.root() + "/.vaultry_lockfile";
    const auto lock = [&](int held, const std::string &file) {
        return [held, file](TQError **error) {
            StoreLock holder{held};
            return _TQLockGenerationInternal(file.c_str(), &holder, LOCK_SH, error) || holder.fd != held;
        };
    };
    const auto givenUp = [&](TQError **error) {
        StoreLock writer{-1};
        EXPECT_TRUE(_WriteLockGenerationStore(store.root().c_str(), &writer, nullptr));
        const auto progress = Ref<TQProgress>::Adopt(TQProgressCreate(0));
        TQProgressCancel(progress.get());
        TQProgressBecomeCurrent(progress.get());
        const bool added = store.Add("g", error);
        TQProgressResignCurrent(progress.get());
        _UnlockGenerationStore(&writer);
        return added;
    };
    StoreLock none;
    ExpectRows({{System(EINVAL, "*->fd isn't -1"), lock(0, path)},
                // A client that has given up does not wait.
                {System(ECANCELED, "Failed to lock generation path \"$/store/.vaultry_lockfile\""), givenUp},
                {Logs(EINVAL, "*->fd is -1"), CALL((_UnlockGenerationStore(&none), why))}},
               store.path());
    // A lock that can't be released would stop every other process: this process stops instead. An add takes it
    // at both ends, and the second call is for the owner file.
    for (const int unlock : {3, 5}) {
        const Outcome stuck = InChild(FailCall(unlock, EIO, kLock), CALL(store.Add("g", why)));
        EXPECT_EQ(stuck.fate, Outcome::Fate::Crashed);
        EXPECT_EQ(store.List().size(), unlock == 5 ? 1U : 0U);
        store.CheckInvariants("", /*killed=*/true);
    }
}

// On a child of the client's progress, whose own entries stay as they are.
TEST(StoreLocks, ShowThatAnOperationWaits)
{
    TestStore store;
    struct Seen {
        StoreLock holder{-1};
        std::vector<std::string> calls;
    } seen;
    EXPECT_TRUE(_WriteLockGenerationStore(store.root().c_str(), &seen.holder, nullptr));
    const auto progress = Ref<TQProgress>::Adopt(TQProgressCreate(7));
    TQProgressSetObserver(
        progress.get(),
        [](TQProgress *changed, void *context) {
            auto &at = *static_cast<Seen *>(context);
            const auto kind = Ref<TQValue>::Adopt(TQProgressCopyUserInfo(changed, kTQProgressFileOperationKindKey));
            const auto url = Ref<TQValue>::Adopt(TQProgressCopyUserInfo(changed, kTQProgressFileURLKey));
            const bool waits = TQEqual(kind.get(), kTQProgressFileOperationKindWaiting);
            at.calls.push_back(waits ? TQURLGetPath(static_cast<TQURL *>(url.get())) : kind ? "another kind" : "over");
            if (at.holder.fd != -1) _UnlockGenerationStore(&at.holder);
        },
        &seen);
    TQProgressBecomeCurrent(progress.get());
    EXPECT_TRUE(store.List().empty());
    TQProgressResignCurrent(progress.get());
    EXPECT_THAT(seen.calls, testing::ElementsAre(store.root() + "/.vaultry_lockfile", "over"));
    EXPECT_FALSE(Ref<TQValue>::Adopt(TQProgressCopyUserInfo(progress.get(), kTQProgressFileOperationKindKey)));
    EXPECT_EQ(TQProgressGetTotalUnits(progress.get()), 7);
}

} // namespace
