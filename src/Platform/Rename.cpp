#include "Platform/Rename.h"

#include "Platform/FileStatus.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

namespace platform {

int RenameIntoNothing(const char *from, const char *to)
{
    const int before = errno;
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return -1;

    // The file system does not know the flag. Looking first leaves a gap, but refuses what is there.
    TQFileStatus status;
    if (GetStatus(Item::AtPath(to), Links::NoFollow, &status) == 0) {
        errno = EEXIST;
        return -1;
    }
    if (errno != ENOENT || rename(from, to) != 0) return -1;
    errno = before;
    return 0;
}

} // namespace platform
