#include "Platform/FileStatus.h"

#include "Platform/Capabilities.h"
#include "Platform/InodeFlags.h"
#include "Platform/ItemId.h"
#include "Platform/KernelCalls.h"
#include "Platform/ProcPath.h"

#include <cerrno>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace platform {

// One flag, under each of the names that Linux has for it.
struct FlagNames {
    uint32_t flag;
    uint64_t statxAttribute;
    int inodeFlag;
    uint64_t xflag; // 0 where the call by name does not know the flag
};

static constexpr FlagNames kFlagNames[] = {
    {kTQFlagNoDump, STATX_ATTR_NODUMP, FS_NODUMP_FL, FS_XFLAG_NODUMP},
    {kTQFlagImmutable, STATX_ATTR_IMMUTABLE, FS_IMMUTABLE_FL, FS_XFLAG_IMMUTABLE},
    {kTQFlagAppend, STATX_ATTR_APPEND, FS_APPEND_FL, FS_XFLAG_APPEND},
    {kTQFlagCompressed, STATX_ATTR_COMPRESSED, FS_COMPR_FL, 0},
};

static constexpr uint32_t kFlagsWithInodeFlag = kTQFlagNoDump | kTQFlagImmutable | kTQFlagAppend | kTQFlagCompressed;

static int _Fail(int error)
{
    errno = error;
    return -1;
}

static struct timespec _Time(const struct statx_timestamp &time)
{
    return {static_cast<time_t>(time.tv_sec), static_cast<long>(time.tv_nsec)};
}

static uint32_t _FlagsOfAttributes(uint64_t attributes)
{
    uint32_t flags = 0;
    for (const FlagNames &names : kFlagNames)
        if (attributes & names.statxAttribute) flags |= names.flag;
    return flags;
}

static int _Statx(int directory, const char *name, int atFlags, TQFileStatus *out)
{
    struct statx read;
    // An automount point is described as it stands: looking at a tree mounts nothing.
    if (statx(directory, name, atFlags | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME, &read) != 0) return -1;

    *out = {};
    out->device = makedev(read.stx_dev_major, read.stx_dev_minor);
    out->inode = read.stx_ino;
    out->mode = read.stx_mode;
    out->linkCount = read.stx_nlink;
    out->owner = read.stx_uid;
    out->group = read.stx_gid;
    out->size = read.stx_size;
    out->blocks = read.stx_blocks;
    out->blockSize = read.stx_blksize;
    out->flags = _FlagsOfAttributes(read.stx_attributes);
    out->accessTime = _Time(read.stx_atime);
    out->modificationTime = _Time(read.stx_mtime);
    out->changeTime = _Time(read.stx_ctime);
    out->hasBirthTime = (read.stx_mask & STATX_BTIME) != 0;
    if (out->hasBirthTime) out->birthTime = _Time(read.stx_btime);
    out->isMountRoot = (read.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    return 0;
}

int GetStatus(const Item &item, Links links, TQFileStatus *out)
{
    return _Statx(item.directory, item.name, links == Links::NoFollow ? AT_SYMLINK_NOFOLLOW : 0, out);
}

int GetStatusOfFd(int fd, TQFileStatus *out)
{
    return _Statx(fd, "", AT_EMPTY_PATH, out);
}

// Changes the flags of kFlagNames, and leaves all others, extents and checksums among them, as they are.
static int _ChangeByDescriptor(int fd, uint32_t flags)
{
    int before = 0;
    if (ioctl(fd, FS_IOC_GETFLAGS, &before) != 0) return errno == ENOTTY ? _Fail(ENOTSUP) : -1;
    int after = before;
    for (const FlagNames &names : kFlagNames)
        after = (flags & names.flag) ? after | names.inodeFlag : after & ~names.inodeFlag;
    if (after == before) return 0;
    if (ioctl(fd, FS_IOC_SETFLAGS, &after) != 0) return errno == ENOTTY ? _Fail(ENOTSUP) : -1;
    return 0;
}

// For the owner of an item without read permission, who may change its flags but can't open it. The call does not know
// the compressed flag, so changing that one still fails.
static int _ChangeByName(const Item &item, int atFlags, uint32_t before, uint32_t flags)
{
    if ((before ^ flags) & kTQFlagCompressed) return _Fail(EACCES);
    kernel::FileAttr attr;
    if (kernel::FileGetAttr(item.directory, item.name, &attr, atFlags) != 0)
        return errno == ENOSYS ? _Fail(EACCES) : -1;
    for (const FlagNames &names : kFlagNames)
        attr.xflags = (flags & names.flag) ? attr.xflags | names.xflag : attr.xflags & ~names.xflag;
    if (kernel::FileSetAttr(item.directory, item.name, attr, atFlags) != 0) return errno == ENOSYS ? _Fail(EACCES) : -1;
    return 0;
}

static bool _CanHold(uint32_t mode, uint32_t flags)
{
    return (S_ISREG(mode) || S_ISDIR(mode)) && (flags & ~kFlagsWithInodeFlag) == 0;
}

int SetFlags(const Item &item, Links links, uint32_t flags)
{
    TQFileStatus status;
    if (GetStatus(item, links, &status) != 0) return -1;
    if (status.flags == flags) return 0;
    if (!_CanHold(status.mode, flags)) return _Fail(ENOTSUP);

    const int before = errno;
    const bool follow = links == Links::Follow;
    const UniqueFd fd(
        openat(item.directory, item.name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW)));
    if (fd) return _ChangeByDescriptor(fd.get(), flags);
    if (errno != EACCES || _ChangeByName(item, follow ? 0 : AT_SYMLINK_NOFOLLOW, status.flags, flags) != 0) return -1;
    errno = before;
    return 0;
}

int SetFlagsOfKnown(int fd, const TQFileStatus &status, uint32_t flags)
{
    if (status.flags == flags) return 0;
    if (!_CanHold(status.mode, flags)) return _Fail(ENOTSUP);
    return _ChangeByDescriptor(fd, flags);
}

int SetFlagsOfFd(int fd, uint32_t flags)
{
    TQFileStatus status;
    return GetStatusOfFd(fd, &status) == 0 ? SetFlagsOfKnown(fd, status, flags) : -1;
}

int SetMode(const Item &item, Links links, mode_t mode)
{
    if (links == Links::Follow) return fchmodat(item.directory, item.name, mode, 0);

    const int before = errno;
    int result = kernel::FchmodAt2(item.directory, item.name, mode, AT_SYMLINK_NOFOLLOW);
    if (result != 0 && errno == ENOSYS) result = fchmodat(item.directory, item.name, mode, AT_SYMLINK_NOFOLLOW);
    if (result == 0) errno = before;
    return result;
}

bool MaySetBlockingFlags()
{
    const ErrnoKeeper keeper;
    Capabilities own{};
    return GetCapabilities(&own) &&
           (own.words[CAP_TO_INDEX(CAP_LINUX_IMMUTABLE)].effective & CAP_TO_MASK(CAP_LINUX_IMMUTABLE)) != 0;
}

UniqueFd PinItem(const Item &item, const TQFileStatus &expected)
{
    UniqueFd fd(openat(item.directory, item.name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    TQFileStatus found;
    if (!fd || GetStatusOfFd(fd.get(), &found) != 0) return UniqueFd();
    if (ItemId::Of(found) == ItemId::Of(expected)) return fd;
    errno = ESTALE;
    return UniqueFd();
}

int SetModeOfPinned(int fd, mode_t mode)
{
    const int before = errno;
    int result = kernel::FchmodAt2(fd, "", mode, AT_EMPTY_PATH);
    if (result != 0 && errno == ENOSYS) {
        TQFileStatus status;
        if (GetStatusOfFd(fd, &status) != 0) return -1;
        if (S_ISLNK(status.mode)) return _Fail(EOPNOTSUPP);
        result = chmod(ProcPath(fd).c_str(), mode);
    }
    if (result == 0) errno = before;
    return result;
}

int SetFlagsOfPinned(int fd, const TQFileStatus &status, uint32_t flags)
{
    if (status.flags == flags) return 0;
    if (!_CanHold(status.mode, flags)) return _Fail(ENOTSUP);

    const int before = errno;
    const UniqueFd opened(open(ProcPath(fd).c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (opened) return _ChangeByDescriptor(opened.get(), flags);
    if (errno != EACCES || _ChangeByName({fd, "", ""}, AT_EMPTY_PATH, status.flags, flags) != 0) return -1;
    errno = before;
    return 0;
}

int SetBirthTime(const Item &, const struct timespec &)
{
    return _Fail(ENOTSUP);
}

int SetBirthTimeOfFd(int, const struct timespec &)
{
    return _Fail(ENOTSUP);
}

} // namespace platform
