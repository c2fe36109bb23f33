// The diagnostic log, seen from inside.
//
// A line that makes no error object is one call at its place: Log(kLogError).Line("…", …). It tests the
// threshold first, so that a suppressed line costs one comparison. Failures are reported through
// Failure (vaultry_internal_failure.h), which logs them too.

#pragma once

#include <vaultry/log.h>

constexpr int kLogError = 3; // failed system calls and allocations, what should not happen
constexpr int kLogDebug = 7; // refused input, best-effort steps that failed

inline bool LogAdmits(int level)
{
    return __atomic_load_n(&tq_log_min_priority, __ATOMIC_RELAXED) >= level;
}

class Log {
public:
    explicit Log(int level, const char *file = __builtin_FILE(), int line = __builtin_LINE())
        : level_(level), file_(file), line_(line)
    {
    }

    [[gnu::format(printf, 2, 3)]] void Line(const char *format, ...) const;

private:
    int level_;
    const char *file_;
    int line_;
};

// Writes the finished line, with the label of the calling thread.
void tq_do_log(int level, const char *fileName, int line, const char *message);
