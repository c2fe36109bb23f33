#include "vaultry_client_managed_folder.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

OpenedFolder::OpenedFolder(const char *path) : path_(path)
{
    const char *const slash = strrchr(path, '/');
    name_ = slash ? slash + 1 : path;
    char folder[PATH_MAX];
    const auto length = slash ? (slash == path ? 1 : slash - path) : 0;
    (void)snprintf(folder, sizeof folder, "%.*s", static_cast<int>(length), path);
    fd_.Reset(open(slash ? folder : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
}
