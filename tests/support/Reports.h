// What a failure must report: the error object's status and whole text, and one line of the same text at its level.

#pragma once

#include "support/Child.h"
#include "support/Disk.h"
#include "support/Library.h"

#include <map>

struct Says {
    std::string text; // "$" is the test's directory, "*" a unique name
    int level;
    int32_t status;
    int error = 0;         // of the system call, or 0
    bool onlyLogs = false; // no error object, whatever the result
};

inline Says System(int error, const std::string &text, int level = 3)
{
    return {text, level, TQGetStatusForErrno(error), error};
}
inline Says Failed(int32_t status, const std::string &text, int level = 3)
{
    return {text, level, status};
}
inline Says Refused(int32_t status, const std::string &text)
{
    return {text, 7, status};
}
inline Says Logs(int error, const std::string &text, int level = 3)
{
    return {text, level, 0, error, true};
}

struct Row {
    Row(Says says_, Operation run_, Fault fault_ = {}) : Row("", std::move(says_), std::move(run_), std::move(fault_))
    {
    }
    Row(const char *what_, Says says_, Operation run_, Fault fault_ = {})
        : what(what_), says(std::move(says_)), run(std::move(run_)), fault(std::move(fault_))
    {
    }
    std::string what; // where the message alone does not tell
    Says says;
    Operation run;
    Fault fault;
};

// "$" and "*" put where they belong, so that a message compares whole.
std::string Plain(std::string text, const std::string &directory);

void ExpectSays(const Outcome &outcome, const Says &says, const std::string &directory);
void ExpectRows(const std::vector<Row> &rows, const std::string &directory);

// A fault at every call of an operation in turn, until one lies past the last: `round` makes everything afresh, runs the
// operation with that fault, and checks what it left behind. The answer has one outcome for each message: the error's
// as it is, a line's with its level in front, both without "; error …".
std::map<std::string, Outcome> Sweep(const std::function<Fault(int nth)> &fault,
                                     const std::function<Outcome(const Fault &, std::string *directory)> &round);

// The messages are among those of a sweep that failed every call with `error`: error objects with the status of that
// error and a line at level 3, or lines alone.
void ExpectReported(const std::map<std::string, Outcome> &sweep, int error, const std::vector<std::string> &errors,
                    const std::vector<std::string> &lines = {});
