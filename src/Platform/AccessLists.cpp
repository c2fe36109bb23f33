#include "Platform/AccessLists.h"

#include "Platform/FileStatus.h"
#include "Platform/ProcPath.h"
#include "Platform/ScopeExit.h"

#include <cerrno>
#include <cstring>
#include <endian.h>
#include <fcntl.h>
#include <linux/limits.h>
#include <memory>
#include <new>
#include <sys/xattr.h>

namespace platform {

static bool _HasNone(int error)
{
    return error == ENODATA || error == ENOTSUP; // a file system without lists
}

static bool _GiveList(const char *name, const char *from, int to, mode_t *denied)
{
    const std::unique_ptr<unsigned char[]> list(new (std::nothrow) unsigned char[XATTR_SIZE_MAX]);
    if (!list) {
        errno = ENOMEM;
        return false;
    }
    const ssize_t size = getxattr(from, name, list.get(), XATTR_SIZE_MAX);
    if (size >= 0 && fsetxattr(to, name, list.get(), static_cast<size_t>(size), 0) == 0) return true;
    if (size >= 0) {
        if (!IsListForgiven(errno)) return false;
        if (denied) *denied = DeniedByList(list.get(), static_cast<size_t>(size));
    } else if (!_HasNone(errno)) {
        return false;
    }
    return fremovexattr(to, name) == 0 || _HasNone(errno);
}

namespace {

// The form in which the kernel hands a list out, after a number of four bytes for its version.
enum : uint16_t { kUserObject = 0x01, kUser = 0x02, kGroupObject = 0x04, kGroup = 0x08, kMask = 0x10, kOther = 0x20 };
struct Entry {
    uint16_t tag;
    uint16_t rights;
    uint32_t id;
};

} // namespace

mode_t DeniedByList(const unsigned char *list, size_t size)
{
    unsigned mask = 07, group = 07, named = 07;
    bool namesAny = false;
    for (size_t at = sizeof(uint32_t); at + sizeof(Entry) <= size; at += sizeof(Entry)) {
        Entry entry;
        memcpy(&entry, list + at, sizeof entry);
        const uint16_t tag = le16toh(entry.tag), rights = le16toh(entry.rights);
        namesAny = namesAny || tag == kUser || tag == kGroup;
        if (tag == kUser || tag == kGroup) named &= rights;
        if (tag == kGroupObject) group &= rights;
        if (tag == kMask) mask &= rights;
    }
    if (namesAny) named &= mask;
    group &= mask & named;
    return static_cast<mode_t>((~group & 07) << 3 | (~named & 07));
}

// The group bits of a mode are the list's mask; a list without one has no names either.
void TakeWriteFromList(unsigned char *list, size_t size)
{
    constexpr uint16_t kWrite = 2;
    bool hasMask = false;
    const auto forEach = [&](const auto &visit) {
        for (size_t at = sizeof(uint32_t); at + sizeof(Entry) <= size; at += sizeof(Entry)) {
            Entry entry;
            memcpy(&entry, list + at, sizeof entry);
            visit(le16toh(entry.tag), entry);
            memcpy(list + at, &entry, sizeof entry);
        }
    };
    forEach([&](uint16_t tag, Entry &) { hasMask = hasMask || tag == kMask; });
    forEach([&](uint16_t tag, Entry &entry) {
        const bool isOfMode = tag == kUserObject || tag == kOther || tag == (hasMask ? kMask : kGroupObject);
        if (isOfMode) entry.rights = htole16(static_cast<uint16_t>(le16toh(entry.rights) & ~kWrite));
    });
}

int GiveListsOf(const Item &from, Links links, int to, mode_t *denied)
{
    const int before = errno;
    const UniqueFd pinned(
        openat(from.directory, from.name, O_PATH | O_CLOEXEC | (links == Links::NoFollow ? O_NOFOLLOW : 0)));
    TQFileStatus source;
    TQFileStatus target;
    if (!pinned || GetStatusOfFd(pinned.get(), &source) != 0 || GetStatusOfFd(to, &target) != 0) return -1;
    const ProcPath path(pinned.get());
    if (!_GiveList("system.posix_acl_access", path.c_str(), to, denied)) return -1;
    if (S_ISDIR(source.mode) && S_ISDIR(target.mode) &&
        !_GiveList("system.posix_acl_default", path.c_str(), to, nullptr))
        return -1;
    errno = before;
    return 0;
}

} // namespace platform
