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
    name[length - 1] = '\0'; // the end of the line
    return true;
}

// A thread inherits the name of the thread that started it, and so in the end the main thread's, until somebody gives
// it another. The main thread's name is the process's: the program's name as it was called (for a script, not its
// interpreter's), or a title. Three cases come out wrong. A label that is given to the main thread as its kernel
// name is taken for a title. If a title is given after other threads were started, they keep the old one and show it as
// a label, unless it was the program's name. And a thread whose starter had a label shows that label.
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
