// Another name for the inode behind a descriptor that only points, which most calls refuse. As the calling thread sees
// it, which may have descriptors of its own.

#pragma once

#include <cstdio>

namespace platform {

class ProcPath {
public:
    explicit ProcPath(int fd) { (void)snprintf(text_, sizeof text_, "/proc/thread-self/fd/%d", fd); }
    const char *c_str() const { return text_; }

private:
    char text_[sizeof "/proc/thread-self/fd/" + 3 * sizeof(int)];
};

} // namespace platform
