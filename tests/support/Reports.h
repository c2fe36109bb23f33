// What a failure must report: the error object's status and whole text, and one line of the same text at its level.

#pragma once

#include "support/Child.h"
#include "support/Disk.h"
#include "support/Library.h"

struct Says {
    std::string text; // "$" is the test's directory, "*" a unique name
    int level;
    int32_t status;
    int error = 0;         // of the system call, or 0
    bool onlyLogs = false; // no error object, whatever the result
};

inline Says System(int error, const std::string &text)
{
    return {text, 3, TQGetStatusForErrno(error), error};
}
inline Says Failed(int32_t status, const std::string &text)
{
    return {text, 3, status};
}
inline Says Refused(int32_t status, const std::string &text)
{
    return {text, 7, status};
}
inline Says Logs(int error, const std::string &text)
{
    return {text, 3, 0, error, true};
}

struct Row {
    Says says;
    Operation run;
};

// Puts "$" and "*" in their places, so that a message compares as a whole.
std::string Plain(std::string text, const std::string &directory);

void ExpectRows(const std::vector<Row> &rows, const std::string &directory);
