#include "Platform/Rename.h"

#include "Platform/FileStatus.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace platform {

// A link replaces nothing, and leaves no gap for anybody. False with EEXIST, or if the item can't be linked or both
// names could not be brought down to one.
static bool _MoveByLink(const Item &from, const Item &to)
{
    if (linkat(from.directory, from.name, to.directory, to.name, 0) != 0) return false;
    if (unlinkat(from.directory, from.name, 0) == 0) return true;
    const int why = errno;
    (void)unlinkat(to.directory, to.name, 0); // the item keeps the name that it had
    errno = why;
    return false;
}

int RenameIntoNothing(const Item &from, const Item &to)
{
    const int before = errno;
    if (renameat2(from.directory, from.name, to.directory, to.name, RENAME_NOREPLACE) == 0) return 0;
    if (!IsRenameFlagUnknown(errno)) return -1;
    if (_MoveByLink(from, to)) {
        errno = before;
        return 0;
    }
    if (errno == EEXIST) return -1;

    // A folder, or a file that may not be linked. Looking first leaves a gap, but refuses what is there.
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
