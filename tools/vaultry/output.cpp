// See output.h.

#include "output.h"

#include "failure.h"
#include "pager.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

void HoldStandardStreams()
{
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) < 0) (void)open("/", O_PATH); // the lowest number that is free; children get it too
}

void RequireOutput(const std::string &done)
{
    if (Pager::TakeFailure())
        throw CommandFailure(kExitFailure, "the pager can't be run, so nothing was shown: --no-pager does without");
    errno = 0;
    bool hasArrived = fflush(stdout) == 0 && !ferror(stdout);
    // Some file systems tell only when a file is closed that they could not write.
    if (const int copy = hasArrived ? dup(STDOUT_FILENO) : -1; copy >= 0) hasArrived = close(copy) == 0;
    if (hasArrived) return;
    const int reason = errno;
    __fpurge(stdout); // it is told once
    clearerr(stdout);
    throw CommandFailure(kExitFailure, (done.empty() ? "" : done + ", but ") + "can't write to standard output" +
                                           (reason == 0 ? "" : std::string(": ") + strerror(reason)));
}
