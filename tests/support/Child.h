// Runs an operation in a forked child, undisturbed or with one fault, and reports the outcome.
//
// The fault lies at the Nth system call of the operation, including those made inside the C library. The child hands a
// seccomp notification of every call to its parent, which counts it and lets it through, answers with an errno, or
// kills the child there; the library has no part in this. Or the Nth allocation fails. Counting begins with the
// operation and ends with its return, or with its Answer.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include <vaultry/error.h>

using Calls = std::vector<int>; // system calls by number; an empty list stands for all
extern const Calls kFlags, kLock;

struct Fault {
    enum class Act { None, Fail, KillBefore, KillAfter, FailAllocation };
    Act act = Act::None;
    int nth = 0; // from 1; 0 if calls are only counted
    int error = 0;
    Calls calls = {};
    bool fromThereOn = false;
};
inline Fault FailCall(int nth, int error, const Calls &calls = {}, bool fromThereOn = false)
{
    return {Fault::Act::Fail, nth, error, calls, fromThereOn};
}
inline Fault KillBefore(int nth, const Calls &calls = {})
{
    return {Fault::Act::KillBefore, nth, 0, calls};
}
inline Fault KillAfter(int nth, const Calls &calls = {})
{
    return {Fault::Act::KillAfter, nth, 0, calls};
}
extern const bool kIsSanitized; // then allocations can't fail: a sanitizer has its own allocator
inline Fault FailAllocation(int nth)
{
    return {Fault::Act::FailAllocation, nth};
}

struct LogLine {
    int level;
    std::string text;
};

struct Result {
    bool succeeded = false, hasError = false;
    int32_t status = 0;
    intptr_t underlying = 0; // the POSIX error underneath
    int leaked = 0;          // allocations that outlived the operation and its error
    bool faultFired = false;
};

struct Outcome : Result {
    enum class Fate { Succeeded, Failed, Killed, Crashed }; // Crashed: it ended itself, or had to be ended
    Fate fate = Fate::Crashed;
    std::string message, answer;
    std::vector<LogLine> log; // lines of every level
    int call = 0;             // the call that the fault struck, by number
    int signal = 0;           // the signal that ended it
    int count = 0;            // calls that the fault's set contains
};

using Operation = std::function<bool(TQError **)>;
Outcome InChild(const Fault &fault, const Operation &operation);
inline Outcome InChild(const Operation &operation)
{
    return InChild(Fault{}, operation);
}

// An operation calls this when its work is done: it ends the fault, and hands the parent the result, as `text`
// describes it.
void Answer(const std::function<std::string()> &text);
