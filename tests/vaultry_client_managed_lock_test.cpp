#include "vaultry_client_managed.h"

#include "support/Tests.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <sys/file.h>
#include <sys/wait.h>
#include <thread>

namespace {

using namespace std::chrono_literals;

class StoreLockTest : public testing::Test {
protected:
    bool Take(bool write, StoreLock *lock) const
    {
        return (write ? _WriteLockGenerationStore : _ReadLockGenerationStore)(store.root().c_str(), lock, nullptr);
    }
    // A process that holds the lock until it is killed; it has it when this returns.
    pid_t Holder(bool write) const
    {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        const pid_t child = fork();
        if (child == 0) {
            StoreLock lock;
            if (!Take(write, &lock) || ::write(ready[1], "", 1) != 1) _exit(1);
            for (;;) pause();
        }
        char byte = 1;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
        return child;
    }
    static void Kill(pid_t child)
    {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    // Whether a thread of this process gets the lock at once; if not, once `release` has been called.
    void ExpectGranted(bool write, bool atOnce, const std::function<void()> &release)
    {
        std::atomic<bool> granted = false;
        std::thread taker([&] {
            StoreLock lock;
            granted = Take(write, &lock);
            _UnlockGenerationStore(&lock);
        });
        for (int i = 0; i < 30 && !(granted && atOnce); ++i) std::this_thread::sleep_for(2ms);
        EXPECT_EQ(granted, atOnce);
        release();
        taker.join();
        EXPECT_TRUE(granted);
    }

    TestStore store;
};

TEST_F(StoreLockTest, ReadersRunTogetherAndAWriterAloneInThreadsAndProcesses)
{
    for (const bool holderWrites : {false, true})
        for (const bool takerWrites : {false, true}) {
            SCOPED_TRACE(testing::Message() << "writing: holder " << holderWrites << ", taker " << takerWrites);
            const bool atOnce = !holderWrites && !takerWrites;
            StoreLock lock;
            ASSERT_TRUE(Take(holderWrites, &lock));
            ExpectGranted(takerWrites, atOnce, [&] { _UnlockGenerationStore(&lock); });
            EXPECT_EQ(lock.fd, -1);
            const pid_t holder = Holder(holderWrites);
            ExpectGranted(takerWrites, atOnce, [&] { Kill(holder); }); // a killed process gives the lock back
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
