// One line a failure, where it happens: the message, the log line under the site's own file and line,
// and the caller's error object.
//
//     if (rename(staged, generation) != 0)
//         return Failure(error).Errno("rename (\"%s\" -> \"%s\") failed", staged, generation);
//
// Always: errno is taken before anything else can change it, and is the same afterwards. A message is bounded by 1,024
// bytes and cut between characters, so that a long path never costs the caller its error. A message that is cut is the
// beginning of the whole one, without the error's number after it.

#pragma once

#include "Shared/tq_log.h"
#include "Shared/vaultry_internal.h"

#include <cstdarg>

// What a failing function returns: false, or a null pointer.
struct Failed {
    operator bool() const { return false; }
    template <class T> operator T *() const { return nullptr; }
};

class Failure {
public:
    // Evaluated before the report's arguments, which may change errno.
    explicit Failure(TQError **error, const char *file = __builtin_FILE(), int line = __builtin_LINE());

    // System failures that are logged at level 7 instead of 3.
    Failure &AtDebug();

    // A system call failed: the status is from errno, and "; error %d (%s)" follows the message.
    [[gnu::format(printf, 2, 3)]] Failed Errno(const char *format, ...) const;

    // The library itself failed.
    [[gnu::format(printf, 3, 4)]] Failed Status(int32_t status, const char *format, ...) const;

    // The caller was at fault: logged at level 7.
    [[gnu::format(printf, 3, 4)]] Failed Refused(int32_t status, const char *format, ...) const;

private:
    struct Message;
    void Write(int level, const Message &message) const;
    [[gnu::format(printf, 4, 0)]] Failed Report(int level, int32_t status, const char *format, va_list arguments) const;

    TQError **error_;
    const char *file_;
    int line_;
    int errno_;
    int level_ = kLogError;
};

// A failure whose message is a string object: logged as "%@; status %d" at `level`, then stored in `error`, which
// owns it. Always false.
bool ReportStringFailure(TQError **error, int level, int32_t status, TQString *message, TQError *underlying,
                         const char *file = __builtin_FILE(), int line = __builtin_LINE());
