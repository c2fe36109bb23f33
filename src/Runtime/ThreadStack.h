// Values that a thread holds until it lets go of them, or ends.
//
// The memory is plain, and a thread-specific key cleans it up instead of a destructor. Registering the destructor of a
// thread-local object stops the process when memory runs out, and such an object can't be used once it is destroyed.
// These stacks work at any time, also in clean-up code that runs while its thread ends.

#pragma once

#include <vaultry/base.h>

class ThreadStack {
public:
    static ThreadStack &Deferred();        // what was handed over for a later release
    static ThreadStack &CurrentProgress(); // the progress objects that became current, the newest on top

    // Takes a reference over; false if there is no memory, and the reference is still the caller's.
    bool Push(TQValue *value);
    // The newest, with its reference. Null when there is none.
    TQValue *Pop() { return count_ > 0 ? values_[--count_] : nullptr; }
    TQValue *top() const { return count_ > 0 ? values_[count_ - 1] : nullptr; }
    size_t count() const { return count_; }

    // Releases everything, newest first, and what is added meanwhile, and frees the memory.
    void Drain();

private:
    TQValue **values_ = nullptr;
    size_t count_ = 0;
    size_t capacity_ = 0;
};
