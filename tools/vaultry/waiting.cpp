// See waiting.h.

#include "waiting.h"

#include "entries.h"
#include "failure.h"
#include "progress_bar.h"
#include "text.h"

#include <vaultry/number.h>
#include <vaultry/storage.h>
#include <vaultry/url.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <unistd.h>
#include <vector>

static std::atomic<bool> gGaveUp{false};

// --- who has it

// The kernel tells who took the lock. Where that process has ended, it left the lock to a child. The name of one that
// lives may be hidden.
static std::string _Holder(const TQDictionary *operation)
{
    const auto number = static_cast<pid_t>(TQNumberGetInt64(EntryOf(operation, "process")));
    const std::string process = "process " + std::to_string(number);
    std::ifstream file("/proc/" + std::to_string(number) + "/comm");
    std::string name;
    if (std::getline(file, name)) return process + " (" + Printable(name) + ")";
    return kill(number, 0) != 0 && errno == ESRCH ? "a child of " + process : process;
}

// The number is one of the process's own machine, or of a part of it, so nothing is looked up by it.
static std::string _Worker(const TQDictionary *operation)
{
    const std::string process = "process " + std::to_string(TQNumberGetInt64(EntryOf(operation, "process")));
    if (TQNumberGetTruth(EntryOf(operation, "here"))) return process;
    const std::string host = Printable(BytesOf(operation, "host"));
    return process + " on " + (host.empty() ? "another machine" : host);
}

// Those that hold the lock, if the kernel knows them; otherwise whoever else works in the store.
static std::string _WhoHas(const std::string &store)
{
    const Owned<TQArray> operations(TQClientManagedStorageCopyOperations(store.c_str(), nullptr));
    std::vector<std::string> holders, others;
    for (size_t i = 0; i < TQArrayGetCount(operations.get()); ++i) {
        const auto *operation = static_cast<const TQDictionary *>(TQArrayGetValueAtIndex(operations.get(), i));
        const bool isOwn =
            TQNumberGetTruth(EntryOf(operation, "here")) && TQNumberGetInt64(EntryOf(operation, "process")) == getpid();
        const bool isLock = !EntryOf(operation, "document");
        if (!isOwn) isLock ? holders.push_back(_Holder(operation)) : others.push_back(_Worker(operation));
    }
    const bool isKnown = !holders.empty();
    std::vector<std::string> &who = isKnown ? holders : others;
    std::sort(who.begin(), who.end());
    who.erase(std::unique(who.begin(), who.end()), who.end());
    if (who.empty()) return "another program has it";
    std::string text = who[0];
    for (size_t i = 1; i < who.size(); ++i) text += (i + 1 == who.size() ? " and " : ", ") + who[i];
    return text + (isKnown ? (who.size() == 1 ? " has it" : " have it") : " may have it");
}

// --- the wait

extern "C" {
static void _OnSignal(int) {} // it only ends a system call
}

// One that does nothing where nobody has set a handler.
static constexpr int kEndOfWait = SIGURG;

WaitWatch::WaitWatch(std::optional<double> seconds) : progress_(TQProgressCreate(0))
{
    constexpr double kYear = 366.0 * 24 * 3600; // and no more, which a clock could not hold
    if (seconds) {
        left_ = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(std::min(*seconds, kYear)));
        struct sigaction action {};
        action.sa_handler = _OnSignal;
        sigaction(kEndOfWait, &action, nullptr);
        sigset_t end;
        sigemptyset(&end);
        sigaddset(&end, kEndOfWait);
        pthread_sigmask(SIG_UNBLOCK, &end, nullptr); // whoever started this may have blocked it
    }
    TQProgressSetObserver(progress_.get(), &WaitWatch::Changed, this);
    TQProgressBecomeCurrent(progress_.get());
}

WaitWatch::~WaitWatch()
{
    TQProgressResignCurrent(progress_.get());
    TQProgressSetObserver(progress_.get(), nullptr, nullptr);
    Join();
}

void WaitWatch::Join()
{
    if (thread_.joinable()) thread_.join();
}

bool WaitWatch::GaveUp()
{
    return gGaveUp;
}

// Called on the thread that waits.
void WaitWatch::Changed(TQProgress *changed, void *self)
{
    auto &watch = *static_cast<WaitWatch *>(self);
    if (changed == watch.shown_) return watch.End();
    const Owned<TQValue> kind(TQProgressCopyUserInfo(changed, kTQProgressFileOperationKindKey));
    if (watch.shown_ || !kind || !TQEqual(kind.get(), kTQProgressFileOperationKindWaiting)) return;
    watch.shown_ = changed;
    const Owned<TQValue> url(TQProgressCopyUserInfo(changed, kTQProgressFileURLKey));
    const char *path = TQURLGetPath(static_cast<const TQURL *>(url.get()));
    const std::string lockFile = path ? path : "";
    watch.Begin(lockFile.substr(0, lockFile.rfind('/')));
}

void WaitWatch::Begin(const std::string &store)
{
    Join();
    {
        const std::lock_guard lock(mutex_);
        isWaiting_ = true;
    }
    began_ = Clock::now();
    // Signals are for the thread that waits.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        thread_ = std::thread(&WaitWatch::Watch, this, store, pthread_self(), left_);
    } catch (const std::exception &) { // nobody can tell of the wait, or end it in time
        if (left_) GiveUp();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// The store's lock may be held by now, so nothing is waited for.
void WaitWatch::End()
{
    shown_ = nullptr;
    {
        const std::lock_guard lock(mutex_);
        isWaiting_ = false;
    }
    wake_.notify_all();
    if (left_) *left_ = std::max(*left_ - (Clock::now() - began_), Clock::duration::zero());
}

void WaitWatch::GiveUp()
{
    gGaveUp = true;
    TQProgressCancel(progress_.get());
}

bool WaitWatch::WaitUntil(std::optional<Clock::time_point> time)
{
    std::unique_lock lock(mutex_);
    const auto isOver = [this] { return !isWaiting_; };
    if (time) return !wake_.wait_until(lock, *time, isOver);
    wake_.wait(lock, isOver);
    return false;
}

// A signal may come before the wait goes on, so it is sent again. What is being undone waits on.
void WaitWatch::Watch(const std::string &store, pthread_t waiter, std::optional<Clock::duration> limit)
{
    using namespace std::chrono_literals;
    const auto toTell = began_ + 1s;
    const std::optional<Clock::time_point> end = limit ? std::optional(began_ + *limit) : std::nullopt;
    if (end && *end <= toTell) {
        if (!WaitUntil(end)) return;
        GiveUp();
    }
    for (auto pause = 20ms; gGaveUp && Clock::now() < toTell; pause *= 2) {
        pthread_kill(waiter, kEndOfWait);
        if (!WaitUntil(std::min(Clock::now() + pause, toTell))) return;
    }
    if (!WaitUntil(toTell)) return;
    const std::string who = _WhoHas(store); // which takes its time
    if (!WaitUntil(Clock::now())) return;
    if (ProgressBar::AreShown()) fputs("\r\x1b[K", stderr);
    Say("waiting for the store " + Quoted(store) + ": " + who);
    if (!WaitUntil(gGaveUp ? std::optional(Clock::now()) : end)) return;
    GiveUp();
    do pthread_kill(waiter, kEndOfWait);
    while (WaitUntil(Clock::now() + 1s));
}
