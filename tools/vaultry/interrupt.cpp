// See interrupt.h.

#include "interrupt.h"

#include "failure.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <unistd.h>

static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP};

static std::atomic<int> gSignal{0};
static std::atomic<TQProgress *> gProgress{nullptr};
static std::atomic<const char *> gMessage{nullptr};
static std::string gLine; // of the message
static std::array<struct sigaction, kSignals.size()> gPrevious;

extern "C" {
static void _OnSignal(int number)
{
    const int before = gSignal.exchange(number), error = errno;
    if (TQProgress *progress = gProgress) TQProgressCancel(progress);
    const char *message = gMessage;
    if (!message) return;
    if (before == 0) {
        (void)!write(STDERR_FILENO, message, strlen(message));
        errno = error;
    } else {
        // Delivered when this handler returns.
        signal(number, SIG_DFL);
        raise(number);
    }
}
}

InterruptGuard::InterruptGuard(const char *message) : waiting_(TQProgressCreateChild(TQProgressGetCurrent(), 0))
{
    TQProgressBecomeCurrent(waiting_.get());
    Catch(waiting_.get(), message);
}

InterruptGuard::InterruptGuard(TQProgress *progress, const char *message)
{
    Catch(progress, message);
}

// A signal may come as soon as the first handler stands, so everything that it needs is there before.
void InterruptGuard::Catch(TQProgress *progress, const char *message)
{
    gProgress = progress;
    gLine = message && *message ? LineOfNote(message) : "";
    if (!gLine.empty() && gLine[0] != '{') gLine.insert(0, 1, '\n'); // behind the "^C" of a terminal
    gMessage = message ? gLine.c_str() : nullptr;
    for (size_t i = 0; i < kSignals.size(); ++i) {
        struct sigaction action {};
        action.sa_handler = _OnSignal;
        sigaction(kSignals[i], nullptr, &gPrevious[i]);
        if (gPrevious[i].sa_handler != SIG_IGN) sigaction(kSignals[i], &action, nullptr);
    }
}

InterruptGuard::~InterruptGuard()
{
    for (size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &gPrevious[i], nullptr);
    gProgress = nullptr;
    gMessage = nullptr;
    TQProgressResignCurrent(waiting_.get());
}

bool InterruptGuard::Came()
{
    return gSignal != 0;
}

int InterruptGuard::ExitCode()
{
    return kExitSignal + gSignal;
}
