// See waiting.h.

#include "waiting.h"

#include "failure.h"
#include "progress_bar.h"
#include "text.h"
#include "times.h"

#include <vaultry/collections.h>
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

static const TQValue *_Entry(const TQDictionary *operation, const char *key)
{
    return TQDictionaryGetValue(operation, MakeString(key).get());
}

static std::string _Bytes(const TQDictionary *operation, const char *key)
{
    const auto *data = static_cast<const TQData *>(_Entry(operation, key));
    return Printable({static_cast<const char *>(TQDataGetBytes(data)), TQDataGetLength(data)});
}

static std::string _Process(const TQDictionary *operation)
{
    const int64_t number = TQNumberGetInt64(_Entry(operation, "process"));
    const std::string process = "process " + std::to_string(number);
    if (!TQNumberGetTruth(_Entry(operation, "here"))) {
        const std::string host = _Bytes(operation, "host");
        return process + " on " + (host.empty() ? "another machine" : host);
    }
    std::ifstream file("/proc/" + std::to_string(number) + "/comm");
    std::string name;
    return std::getline(file, name) ? process + " (" + Printable(name) + ")" : process;
}

// Those that hold the lock, if the kernel knows them; otherwise whoever else works in the store.
static std::string _WhoHas(const std::string &store)
{
    const Owned<TQArray> operations(TQClientManagedStorageCopyOperations(store.c_str(), nullptr));
    std::vector<std::string> holders, others;
    for (size_t i = 0; i < TQArrayGetCount(operations.get()); ++i) {
        const auto *operation = static_cast<const TQDictionary *>(TQArrayGetValueAtIndex(operations.get(), i));
        const bool isOwn =
            TQNumberGetTruth(_Entry(operation, "here")) && TQNumberGetInt64(_Entry(operation, "process")) == getpid();
        const bool isLock = !_Entry(operation, "document");
        if (!isOwn) (isLock ? holders : others).push_back(_Process(operation));
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
static void _OnAlarm(int) {} // it only ends a system call
}

WaitWatch::WaitWatch(std::optional<double> seconds) : progress_(TQProgressCreate(0))
{
    constexpr double kYear = 366.0 * 24 * 3600; // and no more, which a clock could not hold
    if (seconds)
        left_ = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(std::min(*seconds, kYear)));
    struct sigaction action {};
    action.sa_handler = _OnAlarm;
    sigaction(SIGALRM, &action, nullptr);
    TQProgressSetObserver(progress_.get(), &WaitWatch::Changed, this);
    TQProgressBecomeCurrent(progress_.get());
}

WaitWatch::~WaitWatch()
{
    TQProgressResignCurrent(progress_.get());
    TQProgressSetObserver(progress_.get(), nullptr, nullptr);
}

bool WaitWatch::GaveUp()
{
    return gGaveUp;
}

// Called on the thread that waits.
void WaitWatch::Changed(TQProgress *changed, void *self)
{
    auto &watch = *static_cast<WaitWatch *>(self);
    const Owned<TQValue> kind(TQProgressCopyUserInfo(changed, kTQProgressFileOperationKindKey));
    const bool waits = kind && TQEqual(kind.get(), kTQProgressFileOperationKindWaiting);
    if (waits == watch.thread_.joinable()) return;
    if (!waits) return watch.End();
    const Owned<TQValue> url(TQProgressCopyUserInfo(changed, kTQProgressFileURLKey));
    const char *path = TQURLGetPath(static_cast<const TQURL *>(url.get()));
    const std::string lockFile = path ? path : "";
    watch.Begin(lockFile.substr(0, lockFile.rfind('/')));
}

void WaitWatch::Begin(const std::string &store)
{
    isWaiting_ = true;
    began_ = Clock::now();
    // Signals are for the thread that waits.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread(&WaitWatch::Watch, this, store, pthread_self());
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void WaitWatch::End()
{
    {
        const std::lock_guard lock(mutex_);
        isWaiting_ = false;
    }
    wake_.notify_all();
    thread_.join();
    if (left_) *left_ = std::max(*left_ - (Clock::now() - began_), Clock::duration::zero());
}

bool WaitWatch::WaitUntil(std::optional<Clock::time_point> time)
{
    std::unique_lock lock(mutex_);
    const auto isOver = [this] { return !isWaiting_; };
    if (time) return !wake_.wait_until(lock, *time, isOver);
    wake_.wait(lock, isOver);
    return false;
}

void WaitWatch::Watch(const std::string &store, pthread_t waiter)
{
    const auto told = began_ + std::chrono::seconds(1);
    const std::optional<Clock::time_point> end = left_ ? std::optional(began_ + *left_) : std::nullopt;
    if (!end || told < *end) {
        if (!WaitUntil(told)) return;
        if (ProgressBar::AreShown()) fputs("\r\x1b[K", stderr);
        Say("waiting for the store " + Quoted(store) + ": " + _WhoHas(store));
    }
    if (!WaitUntil(end)) return;
    gGaveUp = true;
    TQProgressCancel(progress_.get());
    // The signal may come before the wait goes on, so it is sent until the wait has ended.
    do pthread_kill(waiter, SIGALRM);
    while (WaitUntil(Clock::now() + std::chrono::milliseconds(20)));
}
