// Levelled diagnostic lines on their way to the system log.

#include "Shared/tq_log.h"

#include "Platform/ErrnoKeeper.h"
#include "Platform/SystemLog.h"
#include "Platform/WholeCharacters.h"
#include "Runtime/Ref.h"

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

// Formatted text of any length. It is cut, to fewer than `capacity` bytes, only if there is no memory for all of it.
template <size_t capacity> class FormattedText {
public:
    // False, and the text is empty, for a format that can't be used.
    [[gnu::format(printf, 2, 0)]] bool FormatWith(const char *format, va_list arguments)
    {
        va_list again;
        va_copy(again, arguments);
        const int needed = vsnprintf(local_, sizeof local_, format, arguments);
        length_ = needed > 0 ? static_cast<size_t>(needed) : 0;
        if (needed < 0) local_[0] = '\0';
        if (length_ >= sizeof local_) {
            whole_.reset(static_cast<char *>(malloc(length_ + 1)));
            if (whole_) (void)vsnprintf(whole_.get(), length_ + 1, format, again);
        }
        va_end(again);
        return needed >= 0;
    }
    [[gnu::format(printf, 2, 3)]] bool Format(const char *format, ...)
    {
        va_list arguments;
        va_start(arguments, format);
        const bool isFormatted = FormatWith(format, arguments);
        va_end(arguments);
        return isFormatted;
    }

    // If the text is cut, ends it with `mark` after a whole character.
    void MarkIfCut(const char *mark)
    {
        if (whole_ || length_ < sizeof local_) return;
        const size_t markLength = strlen(mark);
        length_ = LengthOfWholeCharacters(local_, sizeof local_ - 1 - markLength);
        memcpy(local_ + length_, mark, markLength + 1);
        length_ += markLength;
    }

    char *text() { return whole_ ? whole_.get() : local_; }
    size_t length() const { return length_; }

private:
    char local_[capacity];
    HeapText whole_;
    size_t length_ = 0;
};

[[gnu::format(printf, 4, 0)]] void LogFormatted(int level, const char *path, int line, const char *format,
                                                va_list arguments)
{
    FormattedText<kMessageCapacity> message;
    (void)message.FormatWith(format, arguments);
    message.MarkIfCut("...");
    TrimEnd(message.text(), message.length());
    tq_do_log(level, ShownFileName(path), line, message.text());
}

} // namespace

void tq_do_log(int level, const char *fileName, int line, const char *message)
{
    const ErrnoKeeper keeper;
    char label[128];
    platform::GetThreadLabel(label, sizeof label);
    const size_t prefix = sizeof kLabelPrefix - 1;
    const char *shown = strncmp(label, kLabelPrefix, prefix) == 0 ? label + prefix : label;

    FormattedText<kMessageCapacity + 256> whole;
    if (!whole.Format("%s:%i %s (on %s)\n", fileName, line, message, shown)) return;
    whole.MarkIfCut("");
    platform::WriteSystemLog(level, whole.text());
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

    // A line is always written. If its arguments can't be made into a string, it shows the bare format.
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
