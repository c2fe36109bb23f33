// Levelled diagnostic lines on their way to the system log.

#include "Shared/tq_log.h"

#include "Platform/ErrnoKeeper.h"
#include "Platform/SystemLog.h"
#include "Runtime/Ref.h"
#include "Runtime/UTF8.h"

#include <vaultry/path.h>
#include <vaultry/string.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

int32_t tq_log_min_priority = 5;

namespace {

constexpr size_t kMessageCapacity = 1024;
constexpr char kLabelPrefix[] = "com.corvane.";

struct FreeBytes {
    void operator()(char *bytes) const { free(bytes); }
};
using HeapText = std::unique_ptr<char, FreeBytes>;

bool IsSpace(char character)
{
    return isspace(static_cast<unsigned char>(character)) != 0;
}

void TrimEnd(char *text, size_t length)
{
    while (length > 0 && IsSpace(text[length - 1])) text[--length] = '\0';
}

// A path without "/" has no file name; it is shown as it is.
const char *ShownFileName(const char *path)
{
    const char *name = TQGetFileNameForPath(path);
    return name ? name : path ? path : "";
}

// A message of any length is logged whole; only when there is no memory for it is it cut, and says so.
[[gnu::format(printf, 4, 0)]] void LogFormatted(int level, const char *path, int line, const char *format,
                                                va_list arguments)
{
    char local[kMessageCapacity];
    va_list again;
    va_copy(again, arguments);
    const int needed = vsnprintf(local, sizeof local, format, arguments);
    size_t length = needed > 0 ? static_cast<size_t>(needed) : 0;
    if (needed < 0) local[0] = '\0';

    char *message = local;
    HeapText whole;
    if (length >= sizeof local) {
        whole.reset(static_cast<char *>(malloc(length + 1)));
        if (whole) {
            (void)vsnprintf(whole.get(), length + 1, format, again);
            message = whole.get();
        } else {
            static constexpr char kMark[] = "...";
            length = LengthOfWholeCharacters(local, sizeof local - sizeof kMark);
            memcpy(local + length, kMark, sizeof kMark);
            length += sizeof kMark - 1;
        }
    }
    va_end(again);

    TrimEnd(message, length);
    tq_do_log(level, ShownFileName(path), line, message);
}

} // namespace

void tq_do_log(int level, const char *fileName, int line, const char *message)
{
    const ErrnoKeeper keeper;
    char label[128];
    platform::GetThreadLabel(label, sizeof label);
    const size_t prefix = sizeof kLabelPrefix - 1;
    const char *shown = strncmp(label, kLabelPrefix, prefix) == 0 ? label + prefix : label;

    char local[kMessageCapacity + 256];
    const int needed = snprintf(local, sizeof local, "%s:%i %s (on %s)\n", fileName, line, message, shown);
    if (needed < 0) return;
    HeapText whole;
    if (static_cast<size_t>(needed) >= sizeof local) {
        const size_t size = static_cast<size_t>(needed) + 1;
        whole.reset(static_cast<char *>(malloc(size)));
        if (whole)
            (void)snprintf(whole.get(), size, "%s:%i %s (on %s)\n", fileName, line, message, shown);
        else
            local[LengthOfWholeCharacters(local, sizeof local - 1)] = '\0';
    }
    platform::WriteSystemLog(level, whole ? whole.get() : local);
}

void Log::Line(const char *format, ...) const
{
    if (!LogAdmits(level_)) return;
    const ErrnoKeeper keeper;
    va_list arguments;
    va_start(arguments, format);
    LogFormatted(level_, file_, line_, format, arguments);
    va_end(arguments);
}

bool tq_log_set_level(int32_t level)
{
    int32_t current = __atomic_load_n(&tq_log_min_priority, __ATOMIC_RELAXED);
    return __atomic_compare_exchange_n(&tq_log_min_priority, &current, level, /*weak=*/false, __ATOMIC_SEQ_CST,
                                       __ATOMIC_SEQ_CST);
}

void tq_log_msg(int level, const char *path, int line, const char *format, ...)
{
    if (!format) return;
    const ErrnoKeeper keeper;
    va_list arguments;
    va_start(arguments, format);
    LogFormatted(level, path, line, format, arguments);
    va_end(arguments);
}

void _TQLogMsg(int level, const char *path, int line, const TQString *format, ...)
{
    const char *text = TQStringGetUTF8(format);
    if (!text) return;
    const ErrnoKeeper keeper;
    va_list arguments;
    va_start(arguments, format);
    const auto message = Ref<TQString>::Adopt(TQStringCreateWithFormatAndArguments(text, arguments));
    va_end(arguments);

    // A line is written in any case: one whose arguments can't be made into a string shows its bare format.
    const char *begin = message ? TQStringGetUTF8(message.get()) : text;
    while (IsSpace(*begin)) ++begin;
    const HeapText trimmed(strdup(begin));
    if (trimmed) TrimEnd(trimmed.get(), strlen(trimmed.get()));
    tq_do_log(level, ShownFileName(path), line, trimmed ? trimmed.get() : begin);
}

void TQSetThreadLabel(const char *label)
{
    platform::SetThreadLabel(label);
}
