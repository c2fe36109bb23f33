// See failure.h.

#include "failure.h"

#include "owned.h"
#include "text.h"
#include "waiting.h"

#include <vaultry/status.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

int ExitCodeForStatus(int status)
{
    switch (status) {
    case kTQStatusExists:
        return kExitExists;
    case kTQStatusPermissionDenied:
    case kTQStatusReadOnly:
        return kExitPermission;
    case kTQStatusNoSpace:
        return kExitNoSpace;
    default:
        return kExitFailure;
    }
}

CommandFailure CommandFailure::Library(const std::string &what, const TQError *error)
{
    if (WaitWatch::GaveUp() && UnderlyingErrno(error) == ECANCELED)
        return CommandFailure(kExitInUse, what + ": gave up after --wait, since another program has the store");
    // If a message has a path that is not UTF-8, the library makes no error object: then the log has the reason.
    if (!error)
        return CommandFailure(kExitFailure, what + ": the library gave no reason (-v shows its diagnostic lines)");
    const Owned<TQString> description(TQErrorCopyDescription(error));
    const std::string details = Printable(ToText(description.get()));
    const int exitCode = ExitCodeForStatus(TQErrorGetStatus(error));
    // The library names the call that failed; its meaning for the user comes first.
    const int reason = UnderlyingErrno(error);
    return CommandFailure(exitCode, what + ": " + (reason ? strerror(reason) + ("\n  " + details) : details));
}

CommandFailure CommandFailure::Errno(const std::string &what, int errorNumber)
{
    return CommandFailure(ExitCodeForStatus(TQGetStatusForErrno(errorNumber)), what + ": " + strerror(errorNumber));
}

int UnderlyingErrno(const TQError *error)
{
    const TQError *underlying = error ? TQErrorGetUnderlying(error) : nullptr;
    if (!underlying || !TQEqual(TQErrorGetDomain(underlying), kTQPOSIXErrorDomain)) return 0;
    return static_cast<int>(TQErrorGetCode(underlying));
}

std::vector<std::string> Problems::texts() const
{
    std::vector<std::string> texts;
    for (const CommandFailure &failure : failures_) texts.emplace_back(failure.what());
    return texts;
}

void Problems::SayAll() const
{
    for (const CommandFailure &failure : failures_) Say(failure.what());
}

void Say(const std::string &message)
{
    // The list so far comes first if both streams end up in one place.
    fflush(stdout);
    fprintf(stderr, "vaultry: %s\n", message.c_str());
}
