// Which processes hold a lock on a file, according to the kernel's list of locks.
//
// The list has the locks of this machine that the kernel itself keeps. Where a volume keeps them elsewhere, as those do
// that several machines share, it has none.

#pragma once

#include <cstdint>
#include <cstdio>
#include <sys/types.h>

namespace platform {

struct LockHolder {
    int64_t process;
    bool isExclusive;
};

class LockHolders {
public:
    explicit LockHolders(int fd);
    LockHolders(const LockHolders &) = delete;
    LockHolders &operator=(const LockHolders &) = delete;
    ~LockHolders();

    // The next process that this one can see; false after the last one. The list may change meanwhile.
    bool Next(LockHolder *holder);

private:
    FILE *list_ = nullptr;
    char *line_ = nullptr;
    size_t capacity_ = 0;
    unsigned major_ = 0, minor_ = 0;
    uint64_t inode_ = 0;
};

} // namespace platform
