#include "vaultry_client_managed.h"

#include "support/Tests.h"

#include <atomic>
#include <chrono>
#include <sys/file.h>
#include <thread>

namespace {

using namespace std::chrono_literals;

class StoreLockTest : public testing::Test {
protected:
    bool Take(bool write, StoreLock *lock) const
    {
        return (write ? _WriteLockGenerationStore : _ReadLockGenerationStore)(store.root().c_str(), lock, nullptr);
    }
    TestStore store;
};

TEST_F(StoreLockTest, ReadersRunTogetherAndAWriterAlone)
{
    for (const bool holderWrites : {false, true})
        for (const bool takerWrites : {false, true}) {
            SCOPED_TRACE(testing::Message() << "writing: holder " << holderWrites << ", taker " << takerWrites);
            const bool atOnce = !holderWrites && !takerWrites;
            StoreLock lock;
            ASSERT_TRUE(Take(holderWrites, &lock));
            std::atomic<bool> granted = false;
            std::thread taker([&] {
                StoreLock own;
                granted = Take(takerWrites, &own);
                _UnlockGenerationStore(&own);
            });
            for (int i = 0; i < 30 && !(granted && atOnce); ++i) std::this_thread::sleep_for(2ms);
            EXPECT_EQ(granted, atOnce);
            _UnlockGenerationStore(&lock);
            EXPECT_EQ(lock.fd, -1);
            taker.join();
            EXPECT_TRUE(granted);
        }
}

TEST_F(StoreLockTest, MisuseAndFailureAreReported)
{
    const std::string path = store.root() + "/.vaultry_lockfile";
    const auto lock = [&](int held, const std::string &file) {
        return [held, file](TQError **error) {
            StoreLock holder{held};
            return _TQLockGenerationInternal(file.c_str(), &holder, LOCK_SH, error) || holder.fd != held;
        };
    };
    StoreLock none;
    ExpectRows({{System(EINVAL, "*->fd isn't -1"), lock(0, path)},
                {Logs(EINVAL, "*->fd is -1"), CALL((_UnlockGenerationStore(&none), why))}},
               store.path());
    // A lock that can't be released would stop every other process: this one stops instead.
    const Outcome stuck = InChild(FailCall(2, EIO, kLock), CALL(store.Add("g", why)));
    EXPECT_EQ(stuck.fate, Outcome::Fate::Crashed);
    EXPECT_EQ(store.List(), std::vector<std::string>{"g"});
    store.CheckInvariants();
}

} // namespace
