#include "Platform/SystemLog.h"

#include "Platform/ErrnoKeeper.h"
#include "Platform/UniqueFd.h"
#include "Platform/WholeCharacters.h"

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

namespace platform {

static std::atomic<LogSink> logSink{nullptr};

static constexpr size_t kLabelCapacity = 128;
static thread_local char threadLabel[kLabelCapacity];

void SetLogSink(LogSink sink)
{
    logSink.store(sink);
}

void WriteSystemLog(int level, const char *line)
{
    const ErrnoKeeper keeper;
    if (const LogSink sink = logSink.load()) {
        sink(level, line);
        return;
    }
    // Higher bits would name a facility.
    syslog(level & LOG_PRIMASK, "%s", line);
}

// Copies as much as fits, never part of a UTF-8 character.
static void _CopyCut(char *out, size_t capacity, const char *text)
{
    if (capacity == 0) return;
    const size_t whole = strnlen(text, capacity);
    const size_t length = whole < capacity ? whole : LengthOfWholeCharacters(text, capacity - 1);
    memcpy(out, text, length);
    out[length] = '\0';
}

void SetThreadLabel(const char *label)
{
    _CopyCut(threadLabel, sizeof threadLabel, label ? label : "");
}

static constexpr size_t kKernelNameCapacity = 16;

// False where there is no /proc.
static bool _GetMainThreadName(char *name)
{
    const UniqueFd file(open("/proc/self/comm", O_RDONLY | O_CLOEXEC));
    const ssize_t length = file ? read(file.get(), name, kKernelNameCapacity) : -1;
    if (length <= 0) return false;
    name[length - 1] = '\0'; // a line's end
    return true;
}

// A thread carries the name of the one that started it, in the end the main thread's, until somebody gives it another.
// The main thread's own is the process's: the program's as it was called (which for a script is not its interpreter's),
// or a title. What can't be told: a label given to the main thread by its kernel name, taken for a title; a title given
// after other threads were started, which keep what was the title before and show it as a label, unless that was the
// program's name; and a thread whose starter had a label.
static bool _IsProcessName(const char *name)
{
    if (strncmp(name, program_invocation_short_name, kKernelNameCapacity - 1) == 0 || gettid() == getpid()) return true;
    char main[kKernelNameCapacity];
    return _GetMainThreadName(main) && strcmp(name, main) == 0;
}

void GetThreadLabel(char *buffer, size_t capacity)
{
    const ErrnoKeeper keeper;
    if (threadLabel[0] != '\0') {
        _CopyCut(buffer, capacity, threadLabel);
        return;
    }
    char name[kKernelNameCapacity] = "";
    if (prctl(PR_GET_NAME, name) != 0 || _IsProcessName(name)) name[0] = '\0';
    _CopyCut(buffer, capacity, name);
}

} // namespace platform
