// How a failure is reported.

#include "Shared/vaultry_internal_failure.h"

#include "Platform/ErrnoKeeper.h"
#include "Platform/WholeCharacters.h"
#include "Runtime/Ref.h"
#include "Runtime/UTF8.h"

#include <vaultry/string.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

struct Failure::Message {
    char text[1024];
    bool isCut = false;

    [[gnu::format(printf, 2, 0)]] void Format(const char *format, va_list arguments)
    {
        Finish(0, vsnprintf(text, sizeof text, format, arguments));
    }

    void AppendErrno(int errorNumber)
    {
        if (isCut) return; // the number would look like the part that is missing
        char buffer[256];
        const size_t length = strlen(text);
        Finish(length, snprintf(text + length, sizeof text - length, "; error %d (%s)", errorNumber,
                                _TQSystemText(errorNumber, buffer, sizeof buffer)));
    }

private:
    // Text that is not UTF-8 would cost the caller the whole error object.
    void Finish(size_t start, int written)
    {
        if (written < 0) text[start] = '\0';
        isCut = written >= 0 && start + static_cast<size_t>(written) >= sizeof text;
        if (isCut) text[LengthOfWholeCharacters(text, sizeof text - 1)] = '\0';
        MarkOtherBytes(text + start);
    }

    // A name on disk may hold any bytes; those that are not characters are shown as "?".
    static void MarkOtherBytes(char *at)
    {
        while (*at != '\0') {
            const unsigned char first = static_cast<unsigned char>(*at);
            const size_t wanted = LengthOfCharacter(first);
            const bool isCharacter = wanted > 0 && strnlen(at, wanted) == wanted && UTF16LengthOfUTF8(at, wanted);
            if (!isCharacter) *at = '?';
            at += isCharacter ? wanted : 1;
        }
    }
};

Failure::Failure(TQError **error, const char *file, int line) : error_(error), file_(file), line_(line), errno_(errno)
{
}

Failure &Failure::AtDebug()
{
    level_ = kLogDebug;
    return *this;
}

void Failure::Write(int level, const Message &message) const
{
    if (LogAdmits(level)) tq_log_msg(level, file_, line_, "%s\n", message.text);
}

Failed Failure::Errno(const char *format, ...) const
{
    Message message;
    va_list arguments;
    va_start(arguments, format);
    message.Format(format, arguments);
    va_end(arguments);
    message.AppendErrno(errno_);
    Write(level_, message);
    (void)_TQCreateErrorUseErrno(error_, errno_, message.text);
    errno = errno_;
    return {};
}

Failed Failure::Report(int level, int32_t status, const char *format, va_list arguments) const
{
    Message message;
    message.Format(format, arguments);
    Write(level, message);
    (void)_TQCreateErrorForStatus(error_, status, message.text, /*underlying=*/nullptr);
    errno = errno_;
    return {};
}

Failed Failure::Status(int32_t status, const char *format, ...) const
{
    va_list arguments;
    va_start(arguments, format);
    const Failed failed = Report(level_, status, format, arguments);
    va_end(arguments);
    return failed;
}

Failed Failure::Refused(int32_t status, const char *format, ...) const
{
    va_list arguments;
    va_start(arguments, format);
    const Failed failed = Report(kLogDebug, status, format, arguments);
    va_end(arguments);
    return failed;
}

bool ReportStringFailure(TQError **error, int level, int32_t status, TQString *message, TQError *underlying,
                         const char *file, int line)
{
    const ErrnoKeeper keeper;
    const DeferredScope scope;
    if (LogAdmits(level)) {
        const auto format = Ref<TQString>::Adopt(TQStringCreate("%@; status %d"));
        _TQLogMsg(level, file, line, format.get(), message, status);
    }
    // The error made from the status is deferred, so the caller needs a reference of its own.
    if (error) *error = static_cast<TQError *>(TQRetain(_TQErrorForStatus(status, message, underlying)));
    return false;
}
