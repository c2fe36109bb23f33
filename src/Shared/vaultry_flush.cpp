#include "Shared/vaultry_flush.h"

#include "Platform/Flush.h"
#include "Shared/PathBuffer.h"
#include "Shared/vaultry_internal_failure.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

// Never waits for whoever holds the other end of a FIFO.
UniqueFd Open(const char *path)
{
    return UniqueFd(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

UniqueFd OpenDirectory(const char *path)
{
    return UniqueFd(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// The directory that holds an item.
struct Parent {
    char path[PATH_MAX] = ".";

    explicit Parent(const char *item)
    {
        const TrimmedPath trimmed(item);
        const char *slash = strrchr(trimmed.c_str(), '/');
        if (!slash) return;
        const auto length = slash - trimmed.c_str();
        (void)snprintf(path, sizeof path, "%.*s", static_cast<int>(length > 0 ? length : 1), trimmed.c_str());
    }
};

// What has no descriptor to be flushed by: a link, a socket, an item that its own owner may not read.
bool CannotBeOpened()
{
    return errno == EACCES || errno == ELOOP || errno == ENXIO;
}

bool Report(int result, const char *path, TQError **error, const char *file = __builtin_FILE(),
            int line = __builtin_LINE())
{
    return result == 0 || Failure(error, file, line).Errno("Failed to flush \"%s\" to disk", path);
}

int FlushVolume(const char *directory)
{
    const UniqueFd fd = OpenDirectory(directory);
    return fd ? platform::FlushVolumeOfFd(fd.get()) : -1;
}

} // namespace

bool _FlushItem(const char *path, TQError **error)
{
    const UniqueFd item = Open(path);
    if (item) return Report(platform::FlushFd(item.get()), path, error);
    return Report(CannotBeOpened() ? FlushVolume(Parent(path).path) : -1, path, error);
}

bool _FlushEntry(const char *path, TQError **error)
{
    return _FlushFormerEntry(path, path, error);
}

bool _FlushFormerEntry(const char *path, const char *now, TQError **error)
{
    const Parent parent(path);
    const UniqueFd directory = OpenDirectory(parent.path);
    if (directory) return Report(platform::FlushFd(directory.get()), parent.path, error);
    // Who may make entries in a directory need not be allowed to read it; the item is on the same volume.
    const UniqueFd item = CannotBeOpened() ? Open(now) : UniqueFd();
    return Report(item ? platform::FlushVolumeOfFd(item.get()) : -1, parent.path, error);
}

TreeFlush TreeFlush::Within(const char *directory)
{
    TreeFlush flush;
    flush.volume_ = OpenDirectory(directory);
    return flush;
}

TreeFlush TreeFlush::At(const char *path)
{
    return Within(Parent(path).path);
}

bool TreeFlush::Flush(const char *path, uint32_t mode, TQError **error) const
{
    if (!S_ISDIR(mode)) return _FlushItem(path, error);
    return Report(volume_ ? platform::FlushVolumeOfFd(volume_.get()) : FlushVolume(path), path, error);
}
