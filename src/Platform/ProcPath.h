// Another name for the inode behind a descriptor that only points, which most calls refuse.

#pragma once

#include <cstdio>

namespace platform {

class ProcPath {
public:
    explicit ProcPath(int fd) { (void)snprintf(text_, sizeof text_, "/proc/self/fd/%d", fd); }
    const char *c_str() const { return text_; }

private:
    char text_[32];
};

} // namespace platform
