#include "Platform/duplix_metadata.h"

#include "Platform/FileStatus.h"
#include "Platform/InodeFlags.h"
#include "Platform/UniqueFd.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

void GiveOwnerRights(int fd, TQFileStatus *made)
{
    const mode_t needed = S_ISDIR(made->mode) ? S_IRWXU : S_IRUSR | S_IWUSR;
    if ((made->mode & needed) == needed) return;
    // If this is refused, the step that needs the rights will fail and say so.
    if (fchmod(fd, (made->mode & 07777) | needed) == 0) made->mode |= needed;
}

bool GiveAssumedRights(const CopiedItem &item)
{
    if (item.made.inode != 0 || GetStatusOfFd(item.to, &item.made) != 0) return false;
    GiveOwnerRights(item.to, &item.made);
    return true;
}

void StorePlain(int fd, TQFileStatus *made)
{
    const uint32_t plain = made->flags & ~static_cast<uint32_t>(kTQFlagCompressed);
    if (SetFlagsOfKnown(fd, *made, plain) == 0) made->flags = plain;
}

static constexpr mode_t kSetIdBits = S_ISUID | S_ISGID;

struct Ownership {
    bool failed = false;   // errno
    bool changed = false;  // a call was made, which clears set-id bits
    bool complete = false; // both are the source's
};

// The kernel answers EPERM to an ordinary user, and to root without the privilege. In a user namespace, an owner from
// outside has no number, and the kernel answers EINVAL.
static bool _IsNotOursToGive(int error)
{
    return error == EPERM || error == EINVAL;
}

// An ordinary user can't give files away, but may give them to a group of their own.
static Ownership _CopyOwner(int to, const TQFileStatus &source, TQFileStatus &made)
{
    Ownership result;
    result.complete = source.owner == made.owner && source.group == made.group;
    if (result.complete) return result;

    result.changed = true;
    result.complete = fchownat(to, "", source.owner, source.group, AT_EMPTY_PATH) == 0;
    if (result.complete) {
        made.owner = source.owner;
        made.group = source.group;
        return result;
    }
    result.failed = !_IsNotOursToGive(errno);
    if (result.failed || source.group == made.group) return result;
    if (fchownat(to, "", static_cast<uid_t>(-1), source.group, AT_EMPTY_PATH) == 0) {
        made.group = source.group;
        result.complete = source.owner == made.owner;
    } else {
        result.failed = !_IsNotOursToGive(errno);
    }
    return result;
}

static CopiedMode _ModeOf(const CopiedItem &item, const Ownership &owner, const CopiedLists &lists)
{
    mode_t mode = item.source.mode & 07777;
    if (!owner.complete) mode &= ~kSetIdBits; // otherwise they would lend the rights of somebody else
    mode &= ~lists.denied;
    // The mode of an item that nobody looked at is only assumed: another thread may have changed the umask.
    const bool isKnown = item.made.inode != 0 && !owner.changed && !lists.touched;
    return {mode, !isKnown || mode != (item.made.mode & 07777), lists.isListLost};
}

static bool _CopyMode(const CopiedItem &item, CopiedMode *mode)
{
    const bool isLeft = item.leavesMode && (item.source.flags & kBlockingFlags) == 0;
    if (!mode->isDue || isLeft) return true;
    if (fchmod(item.to, mode->mode) != 0) return false;
    item.made.mode = (item.made.mode & S_IFMT) | mode->mode;
    mode->isDue = false;
    return true;
}

static bool _CopyTimes(const CopiedItem &item)
{
    const struct timespec times[] = {item.source.accessTime, item.source.modificationTime};
    return futimens(item.to, times) == 0;
}

// Sets the flags that the file system and the user's rights allow.
static bool _CopyFlags(const CopiedItem &item)
{
    uint32_t flags = item.source.flags;
    while (SetFlagsOfKnown(item.to, item.made, flags) != 0) {
        if (errno != EPERM && errno != ENOTSUP) return false;
        const uint32_t refused = flags & (errno == EPERM ? kBlockingFlags : uint32_t{kTQFlagCompressed});
        if (refused == 0) return true;
        flags &= ~refused;
    }
    item.made.flags = flags;
    return true;
}

Copied CopyMetadata(const CopiedItem &item, AttributeCopier &attributes, DuplixReports &reports, CopiedMode *mode)
{
    if (attributes.CopyUserAttributes(item, reports) == Copied::Stopped) return Copied::Stopped;

    const Ownership owner = _CopyOwner(item.to, item.source, item.made);
    if (owner.failed) return Copied::No;

    CopiedLists lists;
    if (attributes.CopyLists(item, &lists, reports) == Copied::Stopped) return Copied::Stopped;
    if (attributes.CopyCapability(item, reports) == Copied::Stopped) return Copied::Stopped;

    *mode = _ModeOf(item, owner, lists);
    return _CopyMode(item, mode) && _CopyTimes(item) && _CopyFlags(item) ? Copied::Yes : Copied::No;
}

Copied CopyLinkMetadata(const TQFileStatus &source, const Item &link)
{
    // Held by descriptor, so that owner and times go to the link that was just made and to nothing put in its place.
    const UniqueFd pinned(openat(link.directory, link.name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    TQFileStatus made;
    if (!pinned || GetStatusOfFd(pinned.get(), &made) != 0) return Copied::No;
    if (!S_ISLNK(made.mode)) {
        errno = ESTALE;
        return Copied::No;
    }
    if (_CopyOwner(pinned.get(), source, made).failed) return Copied::No;
    const struct timespec times[] = {source.accessTime, source.modificationTime};
    return utimensat(pinned.get(), "", times, AT_EMPTY_PATH) == 0 ? Copied::Yes : Copied::No;
}

} // namespace platform
