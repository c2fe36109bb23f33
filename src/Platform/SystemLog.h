// Where finished diagnostic lines go, and the label of the thread they come from.

#pragma once

#include <cstddef>

namespace platform {

// One line to the system log at `level` (its lowest three bits). Keeps errno.
void WriteSystemLog(int level, const char *line);

// Tests listen here. Null restores the system log.
using LogSink = void (*)(int level, const char *line);
void SetLogSink(LogSink sink);

// The label of the calling thread's work: what SetThreadLabel gave it, else the thread's own name where
// it has one that differs from the process's, else "". Keeps errno.
void GetThreadLabel(char *buffer, size_t capacity);

// The label is copied and cut to 127 bytes. Null takes it away.
void SetThreadLabel(const char *label);

} // namespace platform
