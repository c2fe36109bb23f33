// Paths taken apart inside fixed buffers, and directories made along them.

#include <vaultry/path.h>

#include "Platform/MakePath.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {
constexpr size_t kPathCapacity = 1024;
}

char *separate_path_parent_child(const char *path, char *buffer)
{
    if (!path || !buffer) return nullptr;
    const size_t length = strlen(path);
    if (buffer != path) {
        const size_t copied = length < kPathCapacity ? length : kPathCapacity - 1;
        memmove(buffer, path, copied);
        buffer[copied] = '\0';
    }
    if (length > kPathCapacity - 1) return nullptr;

    const char *separator = strrchr(buffer, '/');
    if (!separator) {
        // The parent is the empty string, and needs a byte for its zero.
        if (length == 0 || length > kPathCapacity - 2) return nullptr;
        memmove(buffer + 1, buffer, length + 1);
        buffer[0] = '\0';
        return buffer + 1;
    }
    if (separator == buffer) {
        // The parent is "/", which the child makes room for.
        if (length > kPathCapacity - 2) return nullptr;
        memmove(buffer + 2, buffer + 1, length);
        buffer[1] = '\0';
        return buffer + 2;
    }
    const size_t at = static_cast<size_t>(separator - buffer);
    buffer[at] = '\0';
    return buffer + at + 1;
}

char *vidpath_restart(char *, size_t, uint32_t, uint64_t)
{
    errno = ENOTSUP; // no call finds a path by numbers
    return nullptr;
}

const char *TQGetFileNameExtensionForPath(const char *path)
{
    if (!path) return nullptr;
    for (const char *at = path + strlen(path); at > path;) {
        --at;
        if (*at == '/') return nullptr;
        if (*at == '.' && at != path && at[-1] != '/') return at;
    }
    return nullptr;
}

const char *TQGetFileNameForPath(const char *path)
{
    const char *slash = path ? strrchr(path, '/') : nullptr;
    return slash ? slash + 1 : nullptr;
}

char *_CopyParentDirectoryPath(const char *path)
{
    if (!path || strcmp(path, "/") == 0) return nullptr;
    size_t length = strlen(path);
    if (length >= 2 && path[length - 1] == '/') --length;
    char *parent = strndup(path, length);
    if (!parent) return nullptr;

    char *slash = strrchr(parent, '/');
    if (!slash) {
        free(parent);
        return nullptr;
    }
    slash[slash == parent ? 1 : 0] = '\0';
    return parent;
}

int TQRecursiveMkdir(const char *path, mode_t mode)
{
    errno = path ? platform::MakePath(path, mode) : EINVAL;
    return errno == 0 ? 0 : -1;
}
