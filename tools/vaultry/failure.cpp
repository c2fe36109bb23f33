// See failure.h.

#include "failure.h"

#include "json.h"
#include "owned.h"
#include "text.h"
#include "waiting.h"

#include <vaultry/status.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

static bool gIsJson = false;

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
    // The library names the call that failed; its meaning for the user comes first.
    const int reason = UnderlyingErrno(error);
    const int status = TQErrorGetStatus(error);
    CommandFailure failure(ExitCodeForStatus(status),
                           what + ": " + (reason ? strerror(reason) + ("\n  " + details) : details));
    failure.error_ = {status, ToText(TQErrorGetDomain(error)), TQErrorGetCode(error)};
    failure.errorNumber_ = reason;
    return failure;
}

CommandFailure CommandFailure::Errno(const std::string &what, int errorNumber)
{
    const int exitCode = ExitCodeForStatus(TQGetStatusForErrno(errorNumber));
    CommandFailure failure(exitCode, what + ": " + strerror(errorNumber));
    failure.errorNumber_ = errorNumber;
    return failure;
}

CommandFailure CommandFailure::Saying(const std::string &message) const
{
    CommandFailure failure = *this;
    static_cast<std::runtime_error &>(failure) = std::runtime_error(message);
    return failure;
}

CommandFailure CommandFailure::ExitingWith(int exitCode) const
{
    CommandFailure failure = *this;
    failure.exitCode_ = exitCode;
    return failure;
}

CommandFailure CommandFailure::At(const std::string &path) const
{
    CommandFailure failure = *this;
    if (path_.empty()) failure.path_ = path;
    return failure;
}

std::string CommandFailure::Line() const
{
    if (!gIsJson) return std::string("vaultry: ") + what() + "\n";
    Json object;
    object["error"] = what();
    object["exit_code"] = exitCode_;
    if (error_) object["status"] = error_->status;
    if (error_) object["domain"] = error_->domain;
    if (error_) object["code"] = error_->code;
    if (errorNumber_ != 0) object["errno"] = errorNumber_;
    if (!path_.empty()) PutBytes(object, "path", path_);
    return ToLine(object);
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
    for (const CommandFailure &failure : failures_) Say(failure);
}

void SayInJson()
{
    gIsJson = true;
}

static void _Say(const std::string &line)
{
    // The list so far comes first if both streams end up in one place.
    fflush(stdout);
    fputs(line.c_str(), stderr);
}

std::string LineOfNote(const std::string &note)
{
    return gIsJson ? ToLine({{"note", note}}) : "vaultry: " + note + "\n";
}

void Say(const std::string &note)
{
    _Say(LineOfNote(note));
}

void Say(const CommandFailure &failure)
{
    _Say(failure.Line());
}
