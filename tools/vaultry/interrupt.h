// Ctrl-C during an operation.
//
// The operation ends cleanly: adding is cancelled through its progress; copying out can't be, and is undone when it is
// complete. A handler only stores flags, cancels (which is one atomic store) and writes. Waiting for the store's lock
// ends at once in any case: the handlers don't restart system calls, and the wait looks at the thread's progress then.

#pragma once

#include "owned.h"

#include <vaultry/progress.h>

// Catches SIGINT, SIGTERM and SIGHUP as long as it lives; only one guard may live at a time. A signal that was ignored
// stays ignored.
class InterruptGuard {
public:
    // Cancels `progress` whenever a signal comes.
    explicit InterruptGuard(TQProgress *progress) : InterruptGuard(progress, nullptr) {}
    // Writes `message`, unless it is empty, at the first signal. The second ends the process as if nobody had caught
    // it. Meanwhile a progress of its own is the thread's current one, and is cancelled.
    explicit InterruptGuard(const char *message);
    // Does both.
    InterruptGuard(TQProgress *progress, const char *message);
    ~InterruptGuard();
    InterruptGuard(const InterruptGuard &) = delete;
    InterruptGuard &operator=(const InterruptGuard &) = delete;

    // Whether a signal came, and the exit code for it.
    static bool Came();
    static int ExitCode();

private:
    static void Catch(TQProgress *progress, const char *message);

    Owned<TQProgress> waiting_;
};
