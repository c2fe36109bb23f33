// Progress of long operations.
//
// Always: the parent is fixed and retained, so walking up needs no lock; the mutex guards what one atomic word can't
// hold; no client's code (an observer, or the release of a value) runs while it is held.

#include "Runtime/NoThrow.h"
#include "Runtime/Object.h"
#include "Runtime/Ref.h"
#include "Runtime/String.h"
#include "Runtime/ThreadStack.h"

#include <vaultry/collections.h>
#include <vaultry/progress.h>

#include <mutex>

struct TQProgress : Object {
    static constexpr Type kType = kTypeProgress;

    TQProgress(TQProgress *above, int64_t total) noexcept;
    ~TQProgress();

    TQProgress *const parent; // retained
    std::atomic<int64_t> totalUnits;
    std::atomic<int64_t> completedUnits{0};
    std::atomic<bool> cancellable{false};
    std::atomic<bool> cancelled{false};

    mutable std::mutex mutex;
    TQDictionary *userInfo = nullptr; // mutable; null until something is put in
    TQString *reportedKind = nullptr;
    TQProgressObserver observer = nullptr;
    void *observerContext = nullptr;
};

static_assert(std::atomic<bool>::is_always_lock_free, "TQProgressCancel may run in a signal handler");

namespace {

void _DescribeProgress(const Object *object, Description &description)
{
    const auto *progress = static_cast<const TQProgress *>(object);
    description.AppendFormat("progress %lld of %lld", static_cast<long long>(progress->completedUnits),
                             static_cast<long long>(progress->totalUnits));
}

constexpr Kind kProgressKind = {kTypeProgress, "progress",       false, Destroy<TQProgress>, nullptr,
                                nullptr,       _DescribeProgress};

constinit TQString operationKindKey{&kStringKind, "TQProgressFileOperationKind"};
constinit TQString operationKindCopying{&kStringKind, "TQProgressFileOperationCopying"};
constinit TQString operationKindWaiting{&kStringKind, "TQProgressFileOperationWaiting"};
constinit TQString fileURLKey{&kStringKind, "TQProgressFileURL"};
constinit TQString kindFile{&kStringKind, "TQProgressKindFile"};

// Each observer is read under its own lock and called under none, so that it may use any progress object.
void _TellObservers(TQProgress *changed)
{
    for (const TQProgress *progress = changed; progress; progress = progress->parent) {
        TQProgressObserver observer = nullptr;
        void *context = nullptr;
        {
            const std::lock_guard lock(progress->mutex);
            observer = progress->observer;
            context = progress->observerContext;
        }
        if (observer) observer(changed, context);
    }
}

} // namespace

TQString *const kTQProgressFileOperationKindKey = &operationKindKey;
TQString *const kTQProgressFileOperationKindCopying = &operationKindCopying;
TQString *const kTQProgressFileOperationKindWaiting = &operationKindWaiting;
TQString *const kTQProgressFileURLKey = &fileURLKey;
TQString *const kTQProgressKindFile = &kindFile;

TQProgress::TQProgress(TQProgress *above, int64_t total) noexcept
    : Object(&kProgressKind), parent(static_cast<TQProgress *>(TQRetain(above))), totalUnits(total)
{
}

TQProgress::~TQProgress()
{
    TQRelease(userInfo);
    TQRelease(reportedKind);
    TQRelease(parent);
}

TQTypeID TQProgressGetTypeID(void)
{
    return kTypeProgress;
}

TQProgress *TQProgressCreate(int64_t totalUnits)
{
    return TQProgressCreateChild(nullptr, totalUnits);
}

TQProgress *TQProgressCreateChild(TQProgress *parent, int64_t totalUnits)
{
    return MakeObject<TQProgress>(nullptr, 0, As(parent), totalUnits);
}

// --- the thread's current progress

TQProgress *TQProgressGetCurrent(void)
{
    return static_cast<TQProgress *>(ThreadStack::CurrentProgress().top());
}

void TQProgressBecomeCurrent(TQProgress *progress)
{
    if (!As(progress)) return;
    if (ThreadStack::CurrentProgress().Push(progress)) TQRetain(progress);
}

void TQProgressResignCurrent(TQProgress *progress)
{
    ThreadStack &current = ThreadStack::CurrentProgress();
    if (progress && current.top() == progress) TQRelease(current.Pop());
}

// --- units

int64_t TQProgressGetTotalUnits(const TQProgress *progress)
{
    const TQProgress *given = As(progress);
    return given ? given->totalUnits.load() : 0;
}

void TQProgressSetTotalUnits(TQProgress *progress, int64_t units)
{
    if (!As(progress)) return;
    progress->totalUnits.store(units);
    _TellObservers(progress);
}

int64_t TQProgressGetCompletedUnits(const TQProgress *progress)
{
    const TQProgress *given = As(progress);
    return given ? given->completedUnits.load() : 0;
}

void TQProgressSetCompletedUnits(TQProgress *progress, int64_t units)
{
    if (!As(progress)) return;
    progress->completedUnits.store(units);
    _TellObservers(progress);
}

void TQProgressSetObserver(TQProgress *progress, TQProgressObserver observer, void *context)
{
    if (!As(progress)) return;
    const std::lock_guard lock(progress->mutex);
    progress->observer = observer;
    progress->observerContext = context;
}

// --- what the operation is

TQValue *TQProgressCopyUserInfo(const TQProgress *progress, const TQString *key)
{
    const TQProgress *given = As(progress);
    if (!given) return nullptr;
    const std::lock_guard lock(given->mutex);
    return TQRetain(TQDictionaryGetValue(given->userInfo, key));
}

void TQProgressSetUserInfo(TQProgress *progress, TQString *key, TQValue *value)
{
    if (!As(progress) || !key) return;
    Ref<TQValue> old; // outlives the lock
    const std::lock_guard lock(progress->mutex);
    old = Ref<TQValue>::Retain(TQDictionaryGetValue(progress->userInfo, key));
    if (!value) {
        (void)TQDictionaryRemoveValue(progress->userInfo, key);
        return;
    }
    if (!progress->userInfo) progress->userInfo = TQDictionaryCreateMutable();
    (void)TQDictionarySetValue(progress->userInfo, key, value);
}

TQString *TQProgressCopyKind(const TQProgress *progress)
{
    const TQProgress *given = As(progress);
    if (!given) return nullptr;
    const std::lock_guard lock(given->mutex);
    return static_cast<TQString *>(TQRetain(given->reportedKind));
}

void TQProgressSetKind(TQProgress *progress, TQString *kind)
{
    if (!As(progress)) return;
    TQRetain(As(kind));
    TQString *old = nullptr;
    {
        const std::lock_guard lock(progress->mutex);
        old = std::exchange(progress->reportedKind, kind);
    }
    TQRelease(old);
}

// --- cancelling

bool TQProgressIsCancellable(const TQProgress *progress)
{
    const TQProgress *given = As(progress);
    return given && given->cancellable.load();
}

void TQProgressSetCancellable(TQProgress *progress, bool cancellable)
{
    if (As(progress)) progress->cancellable.store(cancellable);
}

void TQProgressCancel(TQProgress *progress)
{
    if (As(progress)) progress->cancelled.store(true);
}

bool TQProgressIsCancelled(const TQProgress *progress)
{
    for (const TQProgress *one = As(progress); one; one = one->parent)
        if (one->cancelled.load()) return true;
    return false;
}
