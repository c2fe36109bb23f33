#include "Platform/UniqueNames.h"

#include "Platform/FileStatus.h"
#include "Platform/Rename.h"
#include "Platform/UniqueFd.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

// With one X there are 62 names; a run of this many collisions means that the names are used up.
static constexpr int kAttempts = 1000;

// A copy of a template, and where its Xs are.
struct UniqueName {
    char path[PATH_MAX];
    size_t firstX;
    size_t count;
};

static bool _Parse(const char *pathTemplate, int suffixLength, UniqueName &name)
{
    const size_t length = strlen(pathTemplate);
    if (length >= sizeof name.path) {
        errno = ENAMETOOLONG;
        return false;
    }
    if (suffixLength < 0 || static_cast<size_t>(suffixLength) > length) {
        errno = EINVAL;
        return false;
    }
    memcpy(name.path, pathTemplate, length + 1);
    const size_t end = length - static_cast<size_t>(suffixLength);
    name.firstX = end;
    while (name.firstX > 0 && name.path[name.firstX - 1] == 'X') --name.firstX;
    name.count = end - name.firstX;
    if (name.count == 0) errno = EINVAL;
    return name.count > 0;
}

static bool _Randomize(UniqueName &name)
{
    unsigned char random[64];
    for (size_t done = 0; done < name.count;) {
        const size_t wanted = name.count - done < sizeof random ? name.count - done : sizeof random;
        const ssize_t got = getrandom(random, wanted, 0);
        if (got < 0 && errno != EINTR) return false;
        for (ssize_t i = 0; i < got; ++i)
            name.path[name.firstX + done++] = kUniqueAlphabet[random[i] % (sizeof kUniqueAlphabet - 1)];
    }
    return true;
}

// Tries names until `make`, a system call that refuses an existing name, takes one.
template <class Make> static int _MakeUnique(char *pathTemplate, int suffixLength, Make make)
{
    const int before = errno;
    UniqueName name;
    if (!_Parse(pathTemplate, suffixLength, name)) return -1;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (!_Randomize(name)) return -1;
        const int result = make(name.path);
        if (result >= 0) {
            memcpy(pathTemplate + name.firstX, name.path + name.firstX, name.count);
            errno = before;
            return result;
        }
        if (errno != EEXIST) return -1;
    }
    return -1;
}

// The umask may have taken rights that the owner needs. They are given back by descriptor, never by name.
static int _GiveOwner(const Item &item, mode_t rights)
{
    TQFileStatus status;
    if (GetStatus(item, Links::NoFollow, &status) != 0) return -1;
    if ((status.mode & rights) == rights) return 0;
    if (status.owner != geteuid()) {
        errno = ESTALE; // somebody has put another item there
        return -1;
    }
    const UniqueFd pinned = PinItem(item, status);
    return pinned ? SetModeOfPinned(pinned.get(), rights) : -1;
}

int ChooseUniqueNameAt(int directory, char *nameTemplate, int suffixLength)
{
    return _MakeUnique(nameTemplate, suffixLength, [directory](const char *name) {
        TQFileStatus status;
        if (GetStatus({directory, name, name}, Links::NoFollow, &status) == 0) errno = EEXIST;
        return errno == ENOENT ? 0 : -1;
    });
}

int MakeOwnDirectoryAt(int directory, const char *name)
{
    if (mkdirat(directory, name, S_IRWXU) != 0) return -1;
    if (_GiveOwner({directory, name, name}, S_IRWXU) == 0) return 0;
    const ErrnoKeeper keeper;
    (void)unlinkat(directory, name, AT_REMOVEDIR);
    return -1;
}

int MakeUniqueDirectoryAt(int directory, char *nameTemplate, int suffixLength)
{
    return _MakeUnique(nameTemplate, suffixLength,
                       [directory](const char *name) { return MakeOwnDirectoryAt(directory, name); });
}

int MakeUniqueDirectory(char *pathTemplate)
{
    return MakeUniqueDirectoryAt(AT_FDCWD, pathTemplate, 0);
}

int RenameToUnique(const char *from, const ItemId &id, char *pathTemplate)
{
    return _MakeUnique(pathTemplate, 0,
                       [&](const char *path) { return RenameIntoNothing(Item::AtPath(from), id, Item::AtPath(path)); });
}

int MakeOwnFileAt(int directory, const char *name)
{
    constexpr mode_t kOwners = S_IRUSR | S_IWUSR;
    UniqueFd fd(openat(directory, name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kOwners));
    TQFileStatus status;
    if (!fd) return -1;
    if (GetStatusOfFd(fd.get(), &status) == 0 && ((status.mode & kOwners) == kOwners || fchmod(fd.get(), kOwners) == 0))
        return fd.Release();
    const ErrnoKeeper keeper;
    (void)unlinkat(directory, name, 0);
    return -1;
}

int MakeUniqueFileAt(int directory, char *nameTemplate, int suffixLength)
{
    return _MakeUnique(nameTemplate, suffixLength,
                       [directory](const char *name) { return MakeOwnFileAt(directory, name); });
}

int MakeUniqueFile(char *pathTemplate, int suffixLength)
{
    return MakeUniqueFileAt(AT_FDCWD, pathTemplate, suffixLength);
}

} // namespace platform
