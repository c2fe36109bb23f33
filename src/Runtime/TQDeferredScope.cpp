// Deferred release. A scope is a height of the thread's stack of deferred values: opening one stores nothing and
// so can't fail.

#include "Runtime/Object.h"
#include "Runtime/ThreadStack.h"

TQValue *TQDefer(TQValue *value)
{
    if (!value || ThreadStack::Deferred().Push(value)) return value;
    // Nobody would release the reference later, so the caller can't have the value either.
    TQRelease(value);
    return nullptr;
}

size_t TQDeferredScopePush(void)
{
    return ThreadStack::Deferred().count();
}

void TQDeferredScopePop(size_t token)
{
    ThreadStack &deferred = ThreadStack::Deferred();
    // A release may defer more; that belongs to this scope too.
    while (deferred.count() > token) TQRelease(deferred.Pop());
}
