#include "Platform/Attributes.h"

#include "Platform/KernelCalls.h"
#include "Platform/ProcPath.h"
#include "Platform/UniqueFd.h"

#include <cerrno>
#include <cstring>
#include <linux/limits.h>
#include <sys/xattr.h>

namespace platform {

// A name as it stands on disk.
class DiskName {
public:
    // False, with the errno that the kernel would give, if no file system could hold the name.
    bool Set(const char *name)
    {
        static constexpr char kPrefix[] = "user.";
        const size_t length = strlen(name);
        if (length == 0 || length > XATTR_NAME_MAX - (sizeof kPrefix - 1)) {
            errno = ERANGE;
            return false;
        }
        memcpy(text_, kPrefix, sizeof kPrefix - 1);
        memcpy(text_ + sizeof kPrefix - 1, name, length + 1);
        return true;
    }

    const char *c_str() const { return text_; }

private:
    char text_[XATTR_NAME_MAX + 1];
};

static int _AtFlags(Links links)
{
    return links == Links::NoFollow ? AT_SYMLINK_NOFOLLOW : 0;
}

static UniqueFd _Pin(const Item &item, Links links)
{
    return UniqueFd(
        openat(item.directory, item.name, O_PATH | O_CLOEXEC | (links == Links::NoFollow ? O_NOFOLLOW : 0)));
}

// Works on an item in an open directory, by the call that takes a directory or, where the kernel has none, by the
// item's path in /proc. `call` and `callByPath` return as the system calls do.
template <class Call, class CallByPath>
static auto _InDirectory(const Item &item, Links links, Call call, CallByPath callByPath)
{
    const int before = errno;
    auto result = call();
    if (result < 0 && errno == ENOSYS) {
        const UniqueFd pinned = _Pin(item, links);
        if (!pinned) return decltype(result){-1};
        result = callByPath(ProcPath(pinned.get()).c_str());
    }
    if (result >= 0) errno = before;
    return result;
}

ssize_t GetAttribute(const Item &item, Links links, const char *name, void *buffer, size_t size)
{
    DiskName disk;
    if (!disk.Set(name)) return -1;
    if (item.directory == AT_FDCWD)
        return (links == Links::NoFollow ? lgetxattr : getxattr)(item.name, disk.c_str(), buffer, size);
    return _InDirectory(
        item, links,
        [&] { return kernel::GetXattrAt(item.directory, item.name, _AtFlags(links), disk.c_str(), buffer, size); },
        [&](const char *path) { return getxattr(path, disk.c_str(), buffer, size); });
}

int SetAttribute(const Item &item, Links links, const char *name, const void *value, size_t size)
{
    DiskName disk;
    if (!disk.Set(name)) return -1;
    if (item.directory == AT_FDCWD)
        return (links == Links::NoFollow ? lsetxattr : setxattr)(item.name, disk.c_str(), value, size, 0);
    return _InDirectory(
        item, links,
        [&] { return kernel::SetXattrAt(item.directory, item.name, _AtFlags(links), disk.c_str(), value, size); },
        [&](const char *path) { return setxattr(path, disk.c_str(), value, size, 0); });
}

int RemoveAttribute(const Item &item, Links links, const char *name)
{
    DiskName disk;
    if (!disk.Set(name)) return -1;
    if (item.directory == AT_FDCWD)
        return (links == Links::NoFollow ? lremovexattr : removexattr)(item.name, disk.c_str());
    return _InDirectory(
        item, links, [&] { return kernel::RemoveXattrAt(item.directory, item.name, _AtFlags(links), disk.c_str()); },
        [&](const char *path) { return removexattr(path, disk.c_str()); });
}

ssize_t GetAttributeOfFd(int fd, const char *name, void *buffer, size_t size)
{
    DiskName disk;
    return disk.Set(name) ? fgetxattr(fd, disk.c_str(), buffer, size) : -1;
}

int SetAttributeOfFd(int fd, const char *name, const void *value, size_t size)
{
    DiskName disk;
    return disk.Set(name) ? fsetxattr(fd, disk.c_str(), value, size, 0) : -1;
}

int AddAttributeOfFd(int fd, const char *name, const void *value, size_t size)
{
    DiskName disk;
    return disk.Set(name) ? fsetxattr(fd, disk.c_str(), value, size, XATTR_CREATE) : -1;
}

} // namespace platform
