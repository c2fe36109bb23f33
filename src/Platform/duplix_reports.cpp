#include "Platform/duplix_reports.h"

#include <cerrno>

namespace platform {

void DuplixReports::SetSubject(const char *source, const TQFileStatus *status, const Item &destination)
{
    source_ = source;
    state_ = DuplixState();
    state_.source = status;
    state_.destination = destination;
}

DuplixReports::Answer DuplixReports::Understand(int answer)
{
    if (answer == duplix_answer::Quit && errno == 0) errno = ECANCELED;
    if (answer == duplix_answer::Quit) return Answer::Quit;
    return answer == duplix_answer::Skip ? Answer::Skip : Answer::Continue;
}

DuplixReports::Answer DuplixReports::Ask(int what, int stage)
{
    return Understand(callback_(what, stage, &state_, source_, state_.destination.path, context_));
}

DuplixReports::Answer DuplixReports::Start(int what)
{
    if (!callback_) return Answer::Continue;
    errno = 0; // if the client quits, what it leaves here is its own
    return Ask(what, duplix_stage::Start);
}

DuplixReports::Answer DuplixReports::StartAttribute(const char *name)
{
    state_.attribute = name;
    const Answer answer = Start(duplix_what::Attribute);
    state_.attribute = nullptr;
    return answer;
}

DuplixReports::Answer DuplixReports::AskForSubstitute(DuplixSubstitute substitute, const DuplixOpened &file)
{
    errno = 0;
    return Understand(substitute(file, context_));
}

bool DuplixReports::Finish(int what, const DuplixFinished *finished)
{
    if (!callback_) return true;
    state_.finished = finished;
    errno = 0;
    const bool goOn = Ask(what, duplix_stage::Finish) != Answer::Quit;
    state_.finished = nullptr;
    return goOn;
}

bool DuplixReports::Progress(uint64_t bytesCopied)
{
    if (!callback_) return true;
    state_.bytesCopied = bytesCopied;
    errno = 0;
    return Ask(duplix_what::Data, duplix_stage::Progress) != Answer::Quit;
}

bool DuplixReports::Error(int what)
{
    return callback_ && Ask(what, duplix_stage::Error) != Answer::Quit;
}

} // namespace platform
