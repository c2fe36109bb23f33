#include "Platform/Rename.h"

#include "Platform/FileStatus.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

namespace platform {

int RenameIntoNothing(const Item &from, const Item &to)
{
    const int before = errno;
    if (renameat2(from.directory, from.name, to.directory, to.name, RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return -1;

    // The file system does not know the flag. Looking first leaves a gap, but refuses what is there.
    TQFileStatus status;
    if (GetStatus(to, Links::NoFollow, &status) == 0) {
        errno = EEXIST;
        return -1;
    }
    if (errno != ENOENT || renameat(from.directory, from.name, to.directory, to.name) != 0) return -1;
    errno = before;
    return 0;
}

int ExchangeAt(int directory, const char *one, const char *other)
{
    return renameat2(directory, one, directory, other, RENAME_EXCHANGE);
}

} // namespace platform
