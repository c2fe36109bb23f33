#include "Platform/MakePath.h"

#include "Platform/ErrnoKeeper.h"

#include <climits>
#include <cstring>
#include <sys/stat.h>

namespace platform {

// 0 if `path` is a directory afterwards, whoever made it.
static int _MakeOne(const char *path, mode_t mode)
{
    if (mkdir(path, mode) == 0) return 0;
    const int error = errno;
    struct stat existing;
    return error != ENOENT && stat(path, &existing) == 0 && S_ISDIR(existing.st_mode) ? 0 : error;
}

int MakePath(const char *path, mode_t mode)
{
    const ErrnoKeeper keeper;
    const size_t length = strlen(path);
    if (length == 0) return ENOENT;
    if (length >= PATH_MAX) return ENAMETOOLONG;

    // Usually only the last directory is missing, or none.
    if (const int error = _MakeOne(path, mode); error != ENOENT) return error;

    char prefix[PATH_MAX];
    memcpy(prefix, path, length + 1);
    for (char *slash = strchr(prefix + 1, '/'); slash; slash = strchr(slash + 1, '/')) {
        if (slash[strspn(slash, "/")] == '\0') break; // the last name, however many slashes follow it
        *slash = '\0';
        // The owner has to be able to make what comes below, whatever rights the last directory gets.
        const int error = _MakeOne(prefix, mode | S_IWUSR | S_IXUSR);
        *slash = '/';
        if (error != 0) return error;
    }
    return _MakeOne(path, mode);
}

} // namespace platform
