#include "Platform/duplix_tree.h"

#include "Platform/DirectoryReader.h"
#include "Platform/FileStatus.h"
#include "Platform/InodeFlags.h"
#include "Platform/ItemId.h"
#include "Platform/duplix_metadata.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace platform {

bool DestinationTree::Open(const char *path, const TQFileStatus *into, VolumeMemory &volumes)
{
    into_ = into;
    rootLength_ = strlen(path);
    while (rootLength_ > 1 && path[rootLength_ - 1] == '/') --rootLength_;
    if (rootLength_ == 0 || rootLength_ >= sizeof path_) {
        errno = rootLength_ == 0 ? ENOENT : ENAMETOOLONG;
        return false;
    }
    memcpy(path_, path, rootLength_);
    path_[rootLength_] = '\0';

    char *const slash = strrchr(path_, '/');
    rootName_ = slash ? slash + 1 : path_;
    char parent[PATH_MAX] = ".";
    if (slash) {
        const size_t length = slash == path_ ? 1 : static_cast<size_t>(slash - path_);
        memcpy(parent, path_, length);
        parent[length] = '\0';
    }
    if (*rootName_ == '\0') {
        errno = EEXIST; // the root directory
        return false;
    }
    // Making an item in a directory takes no permission to read it.
    UniqueFd directory(open(parent, O_PATH | O_DIRECTORY | O_CLOEXEC));
    TQFileStatus status;
    if (!directory || GetStatusOfFd(directory.get(), &status) != 0) return false;
    device_ = status.device;
    honoursFlush_ = volumes.HonoursFlush(directory.get(), status.device);
    return directories_.Push(std::move(directory), status);
}

bool DestinationTree::IsOutside(const TQFileStatus &tree) const
{
    UniqueFd at;
    int from = directories_.Top();
    for (TQFileStatus last{};;) {
        char up[PATH_MAX] = ".";
        for (size_t length = 1; length + 4 < sizeof up; length += 3) {
            TQFileStatus above;
            if (GetStatus({from, up, up}, Links::NoFollow, &above) != 0) return false;
            if (ItemId::Of(above) == ItemId::Of(tree)) {
                errno = EINVAL;
                return false;
            }
            if (length > 1 && ItemId::Of(above) == ItemId::Of(last)) return true; // "/" is its own parent
            last = above;
            memcpy(up + length, "/..", 4);
        }
        // The directory is so deep that one path does not reach the top.
        UniqueFd next(openat(from, up, O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!next) return false;
        at = std::move(next);
        from = at.get();
    }
}

bool DestinationTree::NameItem(const char *name, const char *below)
{
    isRoot_ = name == nullptr;
    path_[rootLength_] = '\0';
    item_ = {directories_.Top(), isRoot_ ? rootName_ : name, path_};
    if (isRoot_) return true;

    const size_t slash = *below == '/' ? 0 : 1;
    const size_t length = strlen(below);
    if (rootLength_ + slash + length >= sizeof path_) {
        errno = ENAMETOOLONG;
        return false;
    }
    path_[rootLength_] = '/';
    memcpy(path_ + rootLength_ + slash, below, length + 1);
    return true;
}

// Whether an item that was opened where `into` should be is that item; false with ESTALE or errno.
static bool _IsInto(int fd, const TQFileStatus &into, TQFileStatus *found)
{
    if (GetStatusOfFd(fd, found) != 0) return false;
    const bool isInto = ItemId::Of(*found) == ItemId::Of(into);
    if (!isInto) errno = ESTALE;
    return isInto;
}

// An item that is now of another kind is another item.
static UniqueFd _OpenInto(const Item &item, int flags)
{
    UniqueFd fd(openat(item.directory, item.name, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd && (errno == ELOOP || errno == ENOTDIR || errno == EISDIR || errno == ENXIO)) errno = ESTALE;
    return fd;
}

UniqueFd DestinationTree::OpenRootFile(TQFileStatus *made) const
{
    if (!S_ISREG(into_->mode)) {
        errno = EISDIR;
        return UniqueFd();
    }
    UniqueFd fd = _OpenInto(item_, O_RDWR);
    if (!fd || !_IsInto(fd.get(), *into_, made)) return UniqueFd();
    if (made->size == 0) return fd;
    errno = EEXIST;
    return UniqueFd();
}

static bool _IsEmpty(int fd)
{
    DirectoryReader names;
    int error = 0;
    if (names.Next(fd, &error)) error = EEXIST;
    if (error != 0) errno = error;
    return error == 0;
}

UniqueFd DestinationTree::OpenRootDirectory() const
{
    if (!S_ISDIR(into_->mode)) {
        errno = ENOTDIR;
        return UniqueFd();
    }
    UniqueFd fd = _OpenInto(item_, O_RDONLY | O_DIRECTORY);
    TQFileStatus found;
    if (!fd || !_IsInto(fd.get(), *into_, &found) || !_IsEmpty(fd.get())) return UniqueFd();
    return fd;
}

// Whether a directory that was opened can be the one that was just made; if not, false with ESTALE. On some volumes
// everything belongs to one owner.
static bool _CanBeNew(int fd, const TQFileStatus &status, uid_t maker)
{
    if (status.linkCount <= 2 && (status.owner == maker || !VolumeHonoursFlush(fd))) return true;
    errno = ESTALE;
    return false;
}

// The same for a directory that can be read. Only the root is looked into: it has owner-only rights by then, so others
// can reach nothing below it.
bool DestinationTree::IsNew(int fd, const TQFileStatus &status) const
{
    if (!_CanBeNew(fd, status, maker_)) return false;
    if (!isRoot_ || _IsEmpty(fd)) return true;
    if (errno == EEXIST) errno = ESTALE;
    return false;
}

// With a strict umask, a process can make a directory that it can't read.
static UniqueFd _OpenWithoutRights(const Item &item, int flags, uid_t maker)
{
    const UniqueFd pinned(openat(item.directory, item.name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    TQFileStatus status;
    if (!pinned || GetStatusOfFd(pinned.get(), &status) != 0 || !_CanBeNew(pinned.get(), status, maker) ||
        SetModeOfPinned(pinned.get(), S_IRWXU) != 0)
        return UniqueFd();
    return UniqueFd(openat(pinned.get(), ".", flags));
}

UniqueFd DestinationTree::OpenNewDirectory() const
{
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    UniqueFd fd(openat(item_.directory, item_.name, kFlags));
    if (!fd && errno == EACCES) fd = _OpenWithoutRights(item_, kFlags, maker_);
    if (!fd && (errno == ELOOP || errno == ENOTDIR)) errno = ESTALE;
    return fd;
}

// Below the root, no directory has a default list that could tell two of them apart.
bool DestinationTree::HasSibling(mode_t mode) const
{
    const TQFileStatus &its = sibling_.folder, &folder = directories_.StatusOfTop();
    return sibling_.status.inode != 0 && sibling_.mode == mode && its.device == folder.device &&
           its.owner == folder.owner && its.group == folder.group && its.mode == folder.mode &&
           its.flags == folder.flags;
}

UniqueFd DestinationTree::MakeFile(mode_t mode, bool mayAssume, TQFileStatus *made)
{
    UniqueFd fd;
    if (isIntoRoot()) {
        fd = OpenRootFile(made);
        made_.something = static_cast<bool>(fd);
        if (fd) made_.item = *made;
        return fd;
    }
    fd.Reset(openat(item_.directory, item_.name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    made_.something = made_.something || fd;
    if (!fd) return fd;
    if (mayAssume && HasSibling(mode)) {
        *made = sibling_.status;
        made->inode = 0;
        return fd;
    }
    if (GetStatusOfFd(fd.get(), made) != 0) return UniqueFd();
    if (isRoot_) made_.item = *made;
    if (!isRoot_ && honoursFlush_ && made->device == device_) sibling_ = {*made, mode, directories_.StatusOfTop()};
    return fd;
}

bool DestinationTree::MakeLink(const char *target)
{
    if (symlinkat(target, item_.directory, item_.name) != 0) return false;
    made_.something = true;
    return !isRoot_ || GetStatus(item_, Links::NoFollow, &made_.item) == 0;
}

bool DestinationTree::EnterNewDirectory()
{
    UniqueFd made;
    if (isIntoRoot()) {
        made = OpenRootDirectory();
        made_.something = static_cast<bool>(made);
    } else if (mkdirat(item_.directory, item_.name, S_IRWXU) == 0) {
        made_.something = true;
        made = OpenNewDirectory();
    }
    TQFileStatus status;
    if (!made || GetStatusOfFd(made.get(), &status) != 0) return false;
    if (!isIntoRoot() && !IsNew(made.get(), status)) return false;
    if (isRoot_) made_.item = status;
    GiveOwnerRights(made.get(), &status);
    if (isRoot_) {
        if (fremovexattr(made.get(), "system.posix_acl_default") != 0 && errno != ENODATA && errno != ENOTSUP)
            return false;
        if (SetFlagsOfKnown(made.get(), status, 0) == 0) status.flags = 0;
        rootMade_ = true;
        root_ = status;
    }
    return directories_.Push(std::move(made), status);
}

bool DestinationTree::IsRootMade(const TQFileStatus &directory) const
{
    return rootMade_ && ItemId::Of(root_) == ItemId::Of(directory);
}

bool DestinationTree::PrepareToLeave(const char *name, const char *below)
{
    const bool reached = directories_.OpenParent();
    const ErrnoKeeper keeper;
    (void)NameItem(name, below); // its path fitted when it was entered
    item_.directory = reached ? directories_.Parent() : -1;
    return reached;
}

} // namespace platform
