// A descriptor with one owner. Closing keeps errno.

#pragma once

#include "Platform/ScopeExit.h"

#include <unistd.h>

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

private:
    int fd_ = -1;
};
