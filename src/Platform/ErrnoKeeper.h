// Puts errno back as it was when the scope began: clean-up and diagnostics must not change what a caller is told.

#pragma once

#include <cerrno>

class ErrnoKeeper {
public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

private:
    int saved_;
};
