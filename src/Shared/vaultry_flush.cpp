#include "Shared/vaultry_flush.h"

#include "Platform/FileStatus.h"
#include "Platform/Flush.h"
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
    if (*honours) return Report(platform::FlushVolumeOfFd(open), path, error);
    return _FlushItem(path, error); // whoever wrote its contents has flushed them
}
