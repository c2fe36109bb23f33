#include "Runtime/ThreadStack.h"

#include <vaultry/value.h>

#include <cstdlib>
#include <utility>

#include <pthread.h>

namespace {

struct ThreadStacks {
    ThreadStack deferred;
    ThreadStack currentProgress;
    bool drainedAtEnd = false;
};

thread_local constinit ThreadStacks stacks;

void _DrainAtEnd(void *)
{
    // If the releases below push values again, the C library calls this once more.
    stacks.drainedAtEnd = false;
    stacks.deferred.Drain();
    stacks.currentProgress.Drain();
}

struct DrainKey {
    pthread_key_t key;
    bool made;
};

bool _RegisterDrainAtEnd()
{
    if (stacks.drainedAtEnd) return true;
    static const DrainKey drain = [] {
        DrainKey made{};
        made.made = pthread_key_create(&made.key, _DrainAtEnd) == 0;
        return made;
    }();
    // The clean-up is called only if this value is not null.
    stacks.drainedAtEnd = drain.made && pthread_setspecific(drain.key, &stacks) == 0;
    return stacks.drainedAtEnd;
}

} // namespace

ThreadStack &ThreadStack::Deferred()
{
    return stacks.deferred;
}

ThreadStack &ThreadStack::CurrentProgress()
{
    return stacks.currentProgress;
}

bool ThreadStack::Push(TQValue *value)
{
    if (!_RegisterDrainAtEnd()) return false;
    if (count_ == capacity_) {
        const size_t capacity = capacity_ > 0 ? capacity_ * 2 : 16;
        auto **values = static_cast<TQValue **>(std::realloc(values_, capacity * sizeof *values_));
        if (!values) return false;
        values_ = values;
        capacity_ = capacity;
    }
    values_[count_++] = value;
    return true;
}

void ThreadStack::Drain()
{
    while (count_ > 0) TQRelease(Pop());
    std::free(std::exchange(values_, nullptr));
    capacity_ = 0;
}
