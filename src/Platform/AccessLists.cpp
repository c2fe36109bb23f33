#include "Platform/AccessLists.h"

#include "Platform/FileStatus.h"
#include "Platform/ProcPath.h"
#include "Platform/ScopeExit.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/limits.h>
#include <memory>
#include <new>
#include <sys/xattr.h>

namespace platform {

static bool _HasNone(int error)
{
    return error == ENODATA || error == ENOTSUP; // a file system without lists
}

static bool _GiveList(const char *name, const char *from, int to)
{
    const std::unique_ptr<char[]> list(new (std::nothrow) char[XATTR_SIZE_MAX]);
    if (!list) {
        errno = ENOMEM;
        return false;
    }
    const ssize_t size = getxattr(from, name, list.get(), XATTR_SIZE_MAX);
    if (size >= 0) return fsetxattr(to, name, list.get(), static_cast<size_t>(size), 0) == 0;
    return _HasNone(errno) && (fremovexattr(to, name) == 0 || _HasNone(errno));
}

int GiveListsOf(const Item &from, Links links, int to)
{
    const int before = errno;
    const UniqueFd pinned(
        openat(from.directory, from.name, O_PATH | O_CLOEXEC | (links == Links::NoFollow ? O_NOFOLLOW : 0)));
    TQFileStatus source;
    TQFileStatus target;
    if (!pinned || GetStatusOfFd(pinned.get(), &source) != 0 || GetStatusOfFd(to, &target) != 0) return -1;
    const ProcPath path(pinned.get());
    if (!_GiveList("system.posix_acl_access", path.c_str(), to)) return -1;
    if (S_ISDIR(source.mode) && S_ISDIR(target.mode) && !_GiveList("system.posix_acl_default", path.c_str(), to))
        return -1;
    errno = before;
    return 0;
}

} // namespace platform
