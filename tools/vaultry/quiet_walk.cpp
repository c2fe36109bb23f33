// See quiet_walk.h.

#include "quiet_walk.h"

#include <cerrno>
#include <dirent.h>
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

// The kernel refuses this for somebody else's folder, which is then opened as usual.
static Folder _OpenQuietly(int at, const char *name)
{
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    int fd = openat(at, name, flags | O_NOATIME);
    if (fd < 0 && errno == EPERM) fd = openat(at, name, flags);
    if (fd < 0 && errno == EMFILE && _AllowMoreDescriptors()) return _OpenQuietly(at, name);
    Folder folder(fd < 0 ? nullptr : fdopendir(fd), closedir);
    if (fd >= 0 && !folder) (void)close(fd);
    return folder;
}

// Not every volume gives the kind with the name.
static unsigned char _KindOf(int directory, const dirent &entry)
{
    struct stat status {};
    if (entry.d_type != DT_UNKNOWN || fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return entry.d_type;
    return static_cast<unsigned char>(IFTODT(status.st_mode));
}

static int _Walk(int at, const char *name, std::string &path, const std::function<void(const WalkedItem &)> &visit)
{
    const Folder folder = _OpenQuietly(at, name);
    if (!folder) return errno;
    const size_t length = path.size();
    int reason = 0;
    const dirent *entry = nullptr;
    while (errno = 0, (entry = readdir(folder.get())) != nullptr) {
        const std::string_view own = entry->d_name;
        if (own == "." || own == "..") continue;
        path.append("/").append(own);
        const int directory = dirfd(folder.get());
        const unsigned char kind = _KindOf(directory, *entry);
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
