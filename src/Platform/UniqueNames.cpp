#include "Platform/UniqueNames.h"

#include "Platform/Rename.h"
#include "Platform/ScopeExit.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>

namespace platform {

// With one X there are 62 names; a run of this many collisions means that the names are used up.
static constexpr int kAttempts = 1000;

// The Xs of a template, within a copy of it.
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
    static constexpr char kAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    unsigned char random[64];
    for (size_t done = 0; done < name.count;) {
        const size_t wanted = name.count - done < sizeof random ? name.count - done : sizeof random;
        const ssize_t got = getrandom(random, wanted, 0);
        if (got < 0 && errno != EINTR) return false;
        for (ssize_t i = 0; i < got; ++i)
            name.path[name.firstX + done++] = kAlphabet[random[i] % (sizeof kAlphabet - 1)];
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

int MakeUniqueDirectory(char *pathTemplate)
{
    return _MakeUnique(pathTemplate, 0, [](const char *path) { return mkdir(path, 0700); });
}

int RenameToUnique(const char *from, char *pathTemplate)
{
    return _MakeUnique(pathTemplate, 0, [from](const char *path) { return RenameIntoNothing(from, path); });
}

int MakeUniqueFileAt(int directory, char *nameTemplate, int suffixLength)
{
    return _MakeUnique(nameTemplate, suffixLength, [directory](const char *name) {
        return openat(directory, name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    });
}

int MakeUniqueFile(char *pathTemplate, int suffixLength)
{
    return MakeUniqueFileAt(AT_FDCWD, pathTemplate, suffixLength);
}

} // namespace platform
