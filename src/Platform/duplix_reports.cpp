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

int DuplixReports::Ask(int what, int stage)
{
    const int answer = callback_(what, stage, &state_, source_, state_.destination.path, context_);
    if (answer == duplix_answer::Quit && errno == 0) errno = ECANCELED;
    return answer;
}

DuplixReports::Answer DuplixReports::Start(int what)
{
    if (!callback_) return Answer::Continue;
    errno = 0; // if the client quits, what it leaves here is its own
    const int answer = Ask(what, duplix_stage::Start);
    if (answer == duplix_answer::Quit) return Answer::Quit;
    return answer == duplix_answer::Skip ? Answer::Skip : Answer::Continue;
}

DuplixReports::Answer DuplixReports::StartAttribute(const char *name)
{
    state_.attribute = name;
    const Answer answer = Start(duplix_what::Attribute);
    state_.attribute = nullptr;
    return answer;
}

bool DuplixReports::Finish(int what, const DuplixFinished *finished)
{
    if (!callback_) return true;
    state_.finished = finished;
    errno = 0;
    const bool goOn = Ask(what, duplix_stage::Finish) != duplix_answer::Quit;
    state_.finished = nullptr;
    return goOn;
}

bool DuplixReports::Progress(uint64_t bytesCopied)
{
    if (!callback_) return true;
    state_.bytesCopied = bytesCopied;
    errno = 0;
    return Ask(duplix_what::Data, duplix_stage::Progress) != duplix_answer::Quit;
}

bool DuplixReports::Error(int what)
{
    return callback_ && Ask(what, duplix_stage::Error) != duplix_answer::Quit;
}

} // namespace platform
