// Waiting for the store, when another program has it.
//
// After a second the user is told who has it. With --wait the command gives up in the end. Nothing is ever taken from
// anybody.

#pragma once

#include "owned.h"

#include <vaultry/progress.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

// One for the process, made by main. A progress of its own is the thread's current one as long as it lives, and the
// operations' progress objects are its children.
class WaitWatch {
public:
    using Clock = std::chrono::steady_clock;

    // `seconds` is how long the command waits in all; without it, it waits for ever. What was begun is undone first,
    // however long that waits.
    explicit WaitWatch(std::optional<double> seconds);
    ~WaitWatch();
    WaitWatch(const WaitWatch &) = delete;
    WaitWatch &operator=(const WaitWatch &) = delete;

    // Whether it gave up. Then an operation failed with ECANCELED, and no other is to be begun.
    static bool GaveUp();

private:
    static void Changed(TQProgress *changed, void *self);
    void Begin(const std::string &store);
    void End();
    void GiveUp();
    void Watch(const std::string &store, pthread_t waiter, std::optional<Clock::duration> limit);
    void Join();
    bool WaitUntil(std::optional<Clock::time_point> time); // false if the lock came first

    const Owned<TQProgress> progress_;
    std::optional<Clock::duration> left_;
    Clock::time_point began_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool isWaiting_ = false;            // guarded by the mutex
    const TQProgress *shown_ = nullptr; // the progress that shows the wait; only for the thread that waits
    std::thread thread_;
};
