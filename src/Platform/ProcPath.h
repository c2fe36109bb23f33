// A path to the inode behind an O_PATH descriptor, which most calls refuse. It holds for the calling thread, which may
// have descriptors of its own.

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
