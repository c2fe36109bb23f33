#include "Shared/vaultry_flush.h"

#include "Platform/ErrnoKeeper.h"
#include "Platform/FileStatus.h"
#include "Platform/Flush.h"
#include "Platform/TreeWalk.h"
#include "Platform/Volume.h"
#include "Shared/PathBuffer.h"
#include "Shared/vaultry_internal_failure.h"

#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

namespace {

// Never waits for the other end of a FIFO.
UniqueFd Open(const char *path)
{
    return UniqueFd(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

UniqueFd OpenDirectory(const char *path)
{
    return UniqueFd(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// Whether errno says that the item has no descriptor to be flushed by: it is a link, a socket or unreadable.
bool CannotBeOpened()
{
    return errno == EACCES || errno == ELOOP || errno == ENXIO;
}

bool Report(int result, const char *path, TQError **error, const char *file = __builtin_FILE(),
            int line = __builtin_LINE())
{
    return result == 0 || Failure(error, file, line).Errno("Failed to flush \"%s\" to disk", path);
}

// Opens the nearest directory, from `directory` upwards, that can be read and is on the item's volume. Empty with
// errno: EACCES if there is none.
UniqueFd OpenOnVolumeOf(const char *item, const char *directory)
{
    TQFileStatus wanted, status;
    if (platform::GetStatus(Item::AtPath(item), Links::NoFollow, &wanted) != 0) return UniqueFd();
    UniqueFd at(open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (uint64_t last = 0; at && platform::GetStatusOfFd(at.get(), &status) == 0; last = status.inode) {
        if (status.device != wanted.device || status.inode == last) { // the top is its own parent
            errno = EACCES;
            break;
        }
        UniqueFd readable(openat(at.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (readable) return readable;
        at.Reset(openat(at.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return UniqueFd();
}

// Opens a directory through which an item that can't be opened is flushed with its volume, if that reaches all that is
// on it. Empty, with errno as it was, if there is none.
UniqueFd OpenVolumeOf(const char *item, const char *directory)
{
    const ErrnoKeeper keeper;
    UniqueFd readable = OpenOnVolumeOf(item, directory);
    return readable && platform::VolumeHonoursFlush(readable.get()) ? std::move(readable) : UniqueFd();
}

int FlushUnopened(const char *path)
{
    const bool isOnlyEntry = errno != EACCES; // a link or a socket
    const ParentPath parent(path);
    const UniqueFd volume = OpenVolumeOf(path, parent.c_str());
    if (volume) return platform::FlushVolumeOfFd(volume.get());
    const UniqueFd directory = isOnlyEntry ? OpenDirectory(parent.c_str()) : UniqueFd();
    return directory ? platform::FlushFd(directory.get()) : -1;
}

// A process may be allowed to make entries in a directory, but not to read it. An item on its volume may be readable
// even if no directory above is.
int FlushUnopenedDirectory(const char *path, const char *itemOnIt)
{
    const UniqueFd volume = OpenVolumeOf(path, path);
    if (volume) return platform::FlushVolumeOfFd(volume.get());
    const int why = errno;
    const UniqueFd item = Open(itemOnIt);
    if (item && platform::VolumeHonoursFlush(item.get())) return platform::FlushVolumeOfFd(item.get());
    errno = why;
    return -1;
}

// `directory` is the parent, or errno says why it could not be opened.
bool FlushFolder(const UniqueFd &directory, const ParentPath &parent, const char *itemOnIt, TQError **error)
{
    if (directory) return Report(platform::FlushFd(directory.get()), parent.c_str(), error);
    return Report(CannotBeOpened() ? FlushUnopenedDirectory(parent.c_str(), itemOnIt) : -1, parent.c_str(), error);
}

// Flushing a volume waits for all that anybody has written there. If that is much, a tree of no more than this is
// flushed item by item: on ext4 with 1.5 GiB of others, 256 items take 0.1 s and their volume takes seconds. Without
// others, one call for the volume is the quicker way from two items on. A larger tree, too, is quicker that way: and
// the kernel tells a late error of an item to a descriptor that is opened later only as long as it keeps the item in
// memory, which is likely for a small one.
constexpr int kMostItems = 256;
constexpr uint64_t kMostBytes = 256U << 20;

// Calls `visit` with a descriptor on each file, and on each directory after its contents. False if the tree is not
// small, or one of its items can't be flushed by a descriptor, or `visit` says so.
template <class Visit> bool ForEachOfSmallTree(const char *path, const Visit &visit)
{
    int items = 0;
    uint64_t bytes = 0;
    TreeWalk walk;
    if (!walk.Open(path)) return false;
    while (const TreeWalk::Entry *entry = walk.Next()) {
        if (entry->kind == TreeWalk::Kind::Directory && !entry->isElsewhere) continue;
        if (++items > kMostItems || (bytes += entry->status.size) > kMostBytes) return false;
        if (entry->kind == TreeWalk::Kind::Link) continue; // it goes to disk with its directory
        const bool isFile = entry->kind == TreeWalk::Kind::File;
        if (!isFile && entry->kind != TreeWalk::Kind::DirectoryDone) return false;
        const UniqueFd file(isFile ? openat(entry->item.directory, entry->item.name,
                                            O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)
                                   : -1);
        const int fd = isFile ? file.get() : entry->fd;
        if (fd < 0 || !visit(fd, isFile)) return false;
    }
    return true;
}

// All of it is on its way to the disk before the first wait. False if the volume has to be flushed instead; otherwise
// *why is the errno of a flush that failed, or 0.
bool FlushSmallTree(const char *path, int *why)
{
    const ErrnoKeeper keeper;
    *why = 0;
    const auto begin = [](int fd, bool isFile) {
        if (isFile) platform::BeginFlushOfFd(fd);
        return true;
    };
    const auto flush = [&](int fd, bool) {
        if (platform::FlushFd(fd) != 0) *why = errno;
        return *why == 0;
    };
    return ForEachOfSmallTree(path, begin) && (ForEachOfSmallTree(path, flush) || *why != 0);
}

// The volume keeps its word.
int FlushTree(const char *path, int onVolume)
{
    int why = 0;
    if (!platform::MuchWaitsToBeWritten(onVolume) || !FlushSmallTree(path, &why))
        return platform::FlushVolumeOfFd(onVolume);
    if (why != 0) errno = why;
    return why == 0 ? 0 : -1;
}

} // namespace

bool _FlushItem(const char *path, TQError **error)
{
    const UniqueFd item = Open(path);
    if (item) return Report(platform::FlushFd(item.get()), path, error);
    return Report(CannotBeOpened() ? FlushUnopened(path) : -1, path, error);
}

bool _FlushEntry(const char *path, TQError **error)
{
    const ParentPath parent(path);
    return FlushFolder(OpenDirectory(parent.c_str()), parent, path, error);
}

bool _FlushFormerEntry(const char *path, const char *now, TQError **error)
{
    const ParentPath parent(path);
    const UniqueFd directory = OpenDirectory(parent.c_str());
    // Somebody has removed the folder since, so the entry is gone too.
    if (!directory && errno == ENOENT) return true;
    return FlushFolder(directory, parent, now, error);
}

TreeFlush TreeFlush::At(const char *path)
{
    TreeFlush flush;
    flush.own_ = OpenDirectory(ParentPath(path).c_str());
    return flush;
}

TreeFlush TreeFlush::By(int onVolume)
{
    TreeFlush flush;
    flush.lent_ = onVolume;
    return flush;
}

bool TreeFlush::Flush(const char *path, uint32_t mode, TQError **error) const
{
    if (!S_ISDIR(mode)) return _FlushItem(path, error);
    const UniqueFd other = volume() >= 0 ? UniqueFd() : OpenOnVolumeOf(path, path);
    if (volume() < 0 && !other) return Report(-1, path, error);
    const int open = other ? other.get() : volume();
    const std::optional<bool> honours = platform::AskWhetherVolumeHonoursFlush(open);
    if (!honours) return Report(-1, path, error); // flushing only the top could leave all that is in it unwritten
    if (*honours) return Report(FlushTree(path, open), path, error);
    return _FlushItem(path, error); // whoever wrote its contents has flushed them
}
