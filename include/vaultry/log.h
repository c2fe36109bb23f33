/// @file
/// The diagnostic log: one line to the system log for every failure.
///
/// Levels are those of syslog, 0 to 7. The library writes at 3 (failed system calls and allocations, and what should
/// not happen) and at 7 (input that it refused, best-effort steps that failed). A line reads
/// "file.cpp:120 message (on label)". Any thread may log; errno is kept.

#ifndef VAULTRY_LOG_H
#define VAULTRY_LOG_H

#include <vaultry/value.h>

TQ_BEGIN_DECLS

/// The threshold: a line is written if its level is not above it. It is 5 at first, so that level 3 is written and
/// level 7 is not. Call sites test it; the functions below do not.
TQ_EXPORT extern int32_t tq_log_min_priority;

/// Sets the threshold by one compare-and-swap; any value is taken. False if another thread changed it at the same
/// moment, with nothing stored.
TQ_EXPORT bool tq_log_set_level(int32_t level);

/// Writes one line from a printf format, of any length, trailing white space cut off.
///
/// @param path  The source file; what follows its last "/" is shown.
TQ_EXPORT void tq_log_msg(int level, const char *path, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/// The same from a string object that may hold "%@"; white space at both ends is cut off.
TQ_EXPORT void _TQLogMsg(int level, const char *path, int line, const TQString *format, ...);

/// Sets the label that the lines of the calling thread show; a leading "com.corvane." is not shown. Copied. Null
/// removes the label: then the thread's own name is shown, if it was given one. The main thread's name is the
/// process's, and is never shown.
TQ_EXPORT void TQSetThreadLabel(const char *label);

TQ_END_DECLS

#endif
