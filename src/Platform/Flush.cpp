#include "Platform/Flush.h"

#include "Platform/ErrnoKeeper.h"
#include "Platform/UniqueFd.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace platform {

// A disk takes this in about the time of ten flushes of single items.
static constexpr unsigned long kMuch = 32UL << 20;

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

void BeginFlushOfFd(int fd)
{
    const ErrnoKeeper keeper;
    (void)sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
}

// The number after `key`, which begins a line; 0 if there is none.
static unsigned long _CountOf(const char *text, const char *key)
{
    const char *const line = strstr(text, key);
    return line ? strtoul(line + strlen(key), nullptr, 10) : 0;
}

// The kernel does not tell it for one volume, but a volume in memory never waits.
bool MuchWaitsToBeWritten(int fd)
{
    const ErrnoKeeper keeper;
    struct statfs volume;
    if (fstatfs(fd, &volume) == 0 && volume.f_type == TMPFS_MAGIC) return false;
    char text[16384];
    const UniqueFd counts(open("/proc/vmstat", O_RDONLY | O_CLOEXEC));
    const ssize_t length = counts ? read(counts.get(), text, sizeof text - 1) : -1;
    if (length <= 0) return true;
    text[length] = '\0';
    const unsigned long pages = _CountOf(text, "\nnr_dirty ") + _CountOf(text, "\nnr_writeback ");
    return pages > kMuch / static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
}

} // namespace platform
