#include "Platform/DirectoryStack.h"

#include "Platform/FileStatus.h"
#include "Platform/ItemId.h"

#include <cerrno>
#include <fcntl.h>
#include <new>

namespace platform {

bool DirectoryStack::Push(UniqueFd directory, const TQFileStatus &status)
{
    try {
        levels_.push_back({std::move(directory), status});
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return false;
    }
    if (levels_.size() > kOpenLimit) levels_[levels_.size() - kOpenLimit - 1].fd.Reset();
    return true;
}

bool DirectoryStack::OpenParent()
{
    Level &parent = levels_[levels_.size() - 2];
    if (parent.fd) return true;

    UniqueFd found =
        opener_.Open({Top(), "..", ".."}, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, parent.status.owner);
    // The root's parent is never read, so permission to search it is enough.
    if (!found && errno == EACCES) found.Reset(openat(Top(), "..", O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    TQFileStatus status;
    if (!found || GetStatusOfFd(found.get(), &status) != 0) return false;
    if (ItemId::Of(status) != ItemId::Of(parent.status)) {
        errno = ESTALE;
        return false;
    }
    parent.fd = std::move(found);
    return true;
}

void DirectoryStack::Pop()
{
    levels_.pop_back();
}

} // namespace platform
