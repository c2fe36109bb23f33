// See quiet_walk.h.

#include "quiet_walk.h"

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using Folder = std::unique_ptr<DIR, int (*)(DIR *)>;

// Each folder on the way down is held open. A path can have twice as many as a process may usually hold.
static bool _AllowMoreDescriptors()
{
    rlimit limit{};
    const bool mayGrow = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max;
    limit.rlim_cur = limit.rlim_max;
    if (mayGrow && setrlimit(RLIMIT_NOFILE, &limit) == 0) return true;
    errno = EMFILE;
    return false;
}

// The kernel refuses this for somebody else's item, which is then opened as usual.
int OpenQuietly(int directory, const char *name, int flags)
{
    flags |= O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    int fd = openat(directory, name, flags | O_NOATIME);
    if (fd < 0 && errno == EPERM) fd = openat(directory, name, flags);
    return fd < 0 && errno == EMFILE && _AllowMoreDescriptors() ? OpenQuietly(directory, name, flags) : fd;
}

unsigned char KindOf(int directory, const dirent &entry)
{
    struct stat status {};
    if (entry.d_type != DT_UNKNOWN || fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return entry.d_type;
    return static_cast<unsigned char>(IFTODT(status.st_mode));
}

static int _Walk(int at, const char *name, std::string &path, const std::function<void(const WalkedItem &)> &visit)
{
    const int fd = OpenQuietly(at, name, O_DIRECTORY);
    const Folder folder(fd < 0 ? nullptr : fdopendir(fd), closedir);
    if (fd >= 0 && !folder) (void)close(fd);
    if (!folder) return errno;
    const size_t length = path.size();
    int reason = 0;
    const dirent *entry = nullptr;
    while (errno = 0, (entry = readdir(folder.get())) != nullptr) {
        const std::string_view own = entry->d_name;
        if (own == "." || own == "..") continue;
        path.append("/").append(own);
        const int directory = dirfd(folder.get());
        const unsigned char kind = KindOf(directory, *entry);
        visit({path, directory, entry->d_name, kind});
        const int below = kind == DT_DIR ? _Walk(directory, entry->d_name, path, visit) : 0;
        if (reason == 0) reason = below;
        path.resize(length);
    }
    return reason == 0 ? errno : reason;
}

int WalkBelow(const std::string &folder, const std::function<void(const WalkedItem &)> &visit)
{
    std::string path = folder;
    return _Walk(AT_FDCWD, folder.c_str(), path, visit);
}
