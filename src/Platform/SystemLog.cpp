#include "Platform/SystemLog.h"

#include "Platform/ScopeExit.h"

#include <atomic>
#include <cstring>
#include <sys/prctl.h>
#include <syslog.h>

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
    size_t length = strnlen(text, capacity);
    if (length == capacity) {
        --length;
        while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) --length;
    }
    memcpy(out, text, length);
    out[length] = '\0';
}

void SetThreadLabel(const char *label)
{
    _CopyCut(threadLabel, sizeof threadLabel, label ? label : "");
}

// A thread that nobody named carries the program's name, cut as the kernel cuts it.
static bool _IsProgramName(const char *name, size_t capacity)
{
    return strncmp(name, program_invocation_short_name, capacity - 1) == 0;
}

void GetThreadLabel(char *buffer, size_t capacity)
{
    const ErrnoKeeper keeper;
    if (threadLabel[0] != '\0') {
        _CopyCut(buffer, capacity, threadLabel);
        return;
    }
    char name[16] = "";
    if (prctl(PR_GET_NAME, name) != 0 || _IsProgramName(name, sizeof name)) name[0] = '\0';
    _CopyCut(buffer, capacity, name);
}

} // namespace platform
