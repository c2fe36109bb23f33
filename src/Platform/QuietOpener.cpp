#include "Platform/QuietOpener.h"

#include "Platform/FileStatus.h"
#include "Platform/KernelCalls.h"

#include <cerrno>

namespace platform {

UniqueFd QuietOpener::Open(const Item &item, int flags, uint32_t owner)
{
    if (refused_ != owner) {
        UniqueFd fd(openat(item.directory, item.name, flags | O_NOATIME));
        if (fd || errno != EPERM) return fd;
        refused_ = owner;
    }
    return UniqueFd(openat(item.directory, item.name, flags));
}

UniqueFd QuietOpener::OpenAndLook(const Item &item, int flags, TQFileStatus *status)
{
    UniqueFd fd;
    const bool tries = !refused_ || refused_ != last_;
    if (tries) fd.Reset(kernel::OpenBelow(item.directory, item.name, flags | O_NOATIME));
    const bool isQuiet = static_cast<bool>(fd);
    if (!isQuiet && (!tries || errno == EPERM)) fd.Reset(kernel::OpenBelow(item.directory, item.name, flags));
    if (!fd || GetStatusOfFd(fd.get(), status) != 0) return UniqueFd();
    last_ = status->owner;
    // Only reading changes the time, so it is not too late.
    if (!isQuiet && (tries || (refused_ != last_ && fcntl(fd.get(), F_SETFL, flags | O_NOATIME) != 0)))
        refused_ = last_;
    return fd;
}

} // namespace platform
