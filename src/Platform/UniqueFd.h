// A descriptor with one owner.
//
// The destructor and Reset are for a descriptor that was only read through; they keep errno. One that was written
// through is closed by Close, since some volumes report only then that they could not keep what was written.

#pragma once

#include "Platform/ErrnoKeeper.h"

#include <cerrno>
#include <unistd.h>
#include <utility>

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.Release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    ~UniqueFd() { Reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    int Release() { return std::exchange(fd_, -1); }
    void Reset(int fd = -1)
    {
        const ErrnoKeeper keeper;
        if (fd_ >= 0) (void)close(fd_);
        fd_ = fd;
    }

    // 0, or -1 with errno; errno is untouched on success. The descriptor is gone in any case, after a signal too.
    int Close()
    {
        const int before = errno;
        const int fd = Release();
        if (fd >= 0 && close(fd) != 0 && errno != EINTR) return -1;
        errno = before;
        return 0;
    }

private:
    int fd_ = -1;
};
