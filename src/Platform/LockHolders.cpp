#include "Platform/LockHolders.h"

#include "Platform/ErrnoKeeper.h"
#include "Platform/Mounts.h"

#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace platform {

LockHolders::LockHolders(int fd)
{
    const ErrnoKeeper keeper;
    struct stat status {};
    if (fstat(fd, &status) != 0 || !GetVolumeNumber(fd, &major_, &minor_)) return;
    inode_ = status.st_ino;
    list_ = fopen("/proc/locks", "re");
}

LockHolders::~LockHolders()
{
    const ErrnoKeeper keeper;
    free(line_);
    if (list_) (void)fclose(list_);
}

// A line of the list: "7: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF". One who waits has an arrow before the word.
bool LockHolders::Next(LockHolder *holder)
{
    const ErrnoKeeper keeper;
    while (list_ && getline(&line_, &capacity_, list_) > 0) {
        char mode[8];
        unsigned major = 0, minor = 0;
        uint64_t inode = 0;
        const bool isLock = sscanf(line_, "%*[0-9]: FLOCK %*s %7s %" SCNd64 " %x:%x:%" SCNu64, mode, &holder->process,
                                   &major, &minor, &inode) == 5;
        if (!isLock || major != major_ || minor != minor_ || inode != inode_ || holder->process <= 0) continue;
        holder->isExclusive = strcmp(mode, "WRITE") == 0;
        return true;
    }
    return false;
}

} // namespace platform
