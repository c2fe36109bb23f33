#include "vaultry_client_managed_folder.h"

#include "Shared/PathBuffer.h"

#include <cstring>
#include <fcntl.h>

OpenedFolder::OpenedFolder(const char *path)
    : path_(path), name_(path), fd_(open(ParentPath(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))
{
    if (const char *const slash = strrchr(path, '/')) name_ = slash + 1;
}
