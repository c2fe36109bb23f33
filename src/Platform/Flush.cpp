#include "Platform/Flush.h"

#include <cerrno>
#include <unistd.h>

namespace platform {

static int _PassOverUnsupported(int result, int before)
{
    if (result != 0 && errno != EINVAL && errno != ENOTSUP) return -1;
    errno = before;
    return 0;
}

int FlushFd(int fd)
{
    const int before = errno;
    return _PassOverUnsupported(fsync(fd), before);
}

int FlushVolumeOfFd(int fd)
{
    const int before = errno;
    return _PassOverUnsupported(syncfs(fd), before);
}

} // namespace platform
