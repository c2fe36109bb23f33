// An operation run in a forked child, undisturbed or with one fault, and what came of it.
//
// The fault lies at the Nth system call of the operation, those made inside the C library counted too. The child
// hands a seccomp notification of every call to its parent, which counts it and lets it through, answers with an
// errno, or kills the child there; the library has no part in this. Or it is the Nth allocation that gets
// nothing. What is counted begins with the operation and ends with its return.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include <vaultry/error.h>

// A set of system calls by number, or everything but such a set.
struct Calls {
    std::vector<int> numbers;
    bool except = false;
    bool Contain(int number) const;
};
extern const Calls kMemory, kAllButMemory, kRename, kMode, kStatus, kOpen, kSetAttribute, kMakeDirectory, kRemove,
    kGetAttribute, kFlags, kLock, kReadDirectory;

struct Fault {
    enum class Act { None, Fail, FailFromThere, KillBefore, KillAfter, FailAllocation };
    Act act = Act::None;
    int nth = 0; // from 1
    int error = 0;
    Calls calls = kAllButMemory;
};
inline Fault FailCall(int nth, int error, const Calls &calls = kAllButMemory)
{
    return {Fault::Act::Fail, nth, error, calls};
}
inline Fault KillBefore(int nth, const Calls &calls = kAllButMemory)
{
    return {Fault::Act::KillBefore, nth, 0, calls};
}
inline Fault KillAfter(int nth, const Calls &calls = kAllButMemory)
{
    return {Fault::Act::KillAfter, nth, 0, calls};
}
inline Fault CountCalls(const Calls &calls)
{
    return {Fault::Act::Fail, 0, 0, calls};
}
extern const bool kCanFailAllocations; // false under a sanitizer
inline Fault FailAllocation(int nth)
{
    return {Fault::Act::FailAllocation, nth, 0, {}};
}

struct LogLine {
    int level;
    std::string text;
};

struct Outcome {
    enum class Fate { Succeeded, Failed, Killed, Crashed }; // Crashed: it ended itself, by a signal or a report
    Fate fate = Fate::Crashed;
    bool succeeded = false; // by its own result
    bool hasError = false;
    int32_t status = 0;
    intptr_t underlying = 0; // the POSIX error underneath
    std::string message;
    std::vector<LogLine> log; // lines of every level
    bool faultFired = false;
    int count = 0; // calls that the fault's set contains
};

using Operation = std::function<bool(TQError **)>;
Outcome InChild(const Fault &fault, const Operation &operation);
inline Outcome InChild(const Operation &operation)
{
    return InChild(Fault{}, operation);
}
