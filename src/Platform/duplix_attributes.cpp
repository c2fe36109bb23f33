#include "Platform/duplix_metadata.h"

#include "Platform/AccessLists.h"

#include <cerrno>
#include <cstring>
#include <linux/limits.h>
#include <new>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace platform {

static constexpr char kAccessList[] = "system.posix_acl_access";
static constexpr char kDefaultList[] = "system.posix_acl_default";
static constexpr char kCapability[] = "security.capability";
static constexpr char kUserPrefix[] = "user.";

// Neither the names of an item nor one value can be longer.
static_assert(XATTR_LIST_MAX == 65536 && XATTR_SIZE_MAX == 65536);

// The list is nearly always small. One that does not fit is read again with the most room that a list can take.
static constexpr size_t kUsualNames = 1024;

bool AttributeCopier::ReadNames(int from)
{
    namesLength_ = 0;
    if (!names_) names_.reset(new (std::nothrow) char[XATTR_LIST_MAX]);
    if (!names_) {
        errno = ENOMEM;
        return false;
    }
    ssize_t length = flistxattr(from, names_.get(), kUsualNames);
    if (length < 0 && errno == ERANGE) length = flistxattr(from, names_.get(), XATTR_LIST_MAX);
    if (length < 0) return errno == ENOTSUP; // a file system without attributes: there are none
    namesLength_ = static_cast<size_t>(length);
    return true;
}

bool AttributeCopier::Has(const char *name) const
{
    for (size_t at = 0; at < namesLength_; at += strlen(names_.get() + at) + 1)
        if (strcmp(names_.get() + at, name) == 0) return true;
    return false;
}

ssize_t AttributeCopier::ReadValue(int from, const char *name)
{
    if (!value_) value_.reset(new (std::nothrow) unsigned char[XATTR_SIZE_MAX]);
    if (!value_) {
        errno = ENOMEM;
        return -1;
    }
    return fgetxattr(from, name, value_.get(), XATTR_SIZE_MAX);
}

// If an attribute was removed since the names were read, there is nothing to copy.
bool AttributeCopier::CopyOne(const CopiedItem &item, const char *name)
{
    const ssize_t length = ReadValue(item.from, name);
    if (length < 0) return errno == ENODATA;
    const auto set = [&] { return fsetxattr(item.to, name, value_.get(), static_cast<size_t>(length), 0) == 0; };
    return set() || (errno == EACCES && GiveAssumedRights(item) && set());
}

// Some volumes have a list but don't name it, so a volume that is not known to name it is asked. *size is 0 if there is
// none.
bool AttributeCopier::ReadList(const CopiedItem &item, const char *name, size_t *size)
{
    *size = 0;
    if (!Has(name) && volumes_.HonoursFlush(item.from, item.source.device)) return true;
    const ssize_t length = ReadValue(item.from, name);
    if (length < 0) return errno == ENODATA || errno == ENOTSUP;
    *size = static_cast<size_t>(length);
    return true;
}

static Copied _Report(DuplixReports &reports)
{
    return reports.Error(duplix_what::Attribute) ? Copied::Yes : Copied::Stopped;
}

Copied AttributeCopier::CopyUserAttributes(const CopiedItem &item, DuplixReports &reports)
{
    if (!ReadNames(item.from)) return _Report(reports);
    for (size_t at = 0; at < namesLength_;) {
        const char *name = names_.get() + at;
        at += strlen(name) + 1;
        // Other namespaces belong to the system, or are copied below.
        if (strncmp(name, kUserPrefix, strlen(kUserPrefix)) != 0) continue;
        const DuplixReports::Answer answer = reports.StartAttribute(name + strlen(kUserPrefix));
        if (answer == DuplixReports::Answer::Quit) return Copied::Stopped;
        if (answer == DuplixReports::Answer::Skip) continue;
        if (!CopyOne(item, name) && _Report(reports) == Copied::Stopped) return Copied::Stopped;
    }
    return Copied::Yes;
}

static bool _RemoveInherited(int to, const char *list)
{
    return fremovexattr(to, list) == 0 || errno == ENODATA || errno == ENOTSUP;
}

bool AttributeCopier::CopyAccessList(const CopiedItem &item, CopiedLists *lists)
{
    size_t size = 0;
    if (!ReadList(item, kAccessList, &size)) return false;
    if (size == 0) return !item.mayHaveInherited || _RemoveInherited(item.to, kAccessList);
    lists->touched = true;
    if (fsetxattr(item.to, kAccessList, value_.get(), size, 0) == 0) {
        item.made.mode = (item.made.mode & ~0777U) | (item.source.mode & 0777); // they are a part of the list
        return true;
    }
    if (!IsListForgiven(errno)) return false;
    // The mode's group bits were the list's mask. Without the list they would grant that to the whole group.
    lists->denied = DeniedByList(value_.get(), size);
    lists->isListLost = true;
    return !item.mayHaveInherited || _RemoveInherited(item.to, kAccessList);
}

bool AttributeCopier::CopyDefaultList(const CopiedItem &item)
{
    if (!S_ISDIR(item.source.mode)) return true;
    size_t size = 0;
    if (!ReadList(item, kDefaultList, &size)) return false;
    if (size == 0) return !item.mayHaveInherited || _RemoveInherited(item.to, kDefaultList);
    if (fsetxattr(item.to, kDefaultList, value_.get(), size, 0) == 0) return true;
    return IsListForgiven(errno) && (!item.mayHaveInherited || _RemoveInherited(item.to, kDefaultList));
}

Copied AttributeCopier::CopyLists(const CopiedItem &item, CopiedLists *lists, DuplixReports &reports)
{
    if (!CopyAccessList(item, lists) && _Report(reports) == Copied::Stopped) return Copied::Stopped;
    if (!CopyDefaultList(item) && _Report(reports) == Copied::Stopped) return Copied::Stopped;
    return Copied::Yes;
}

Copied AttributeCopier::CopyCapability(const CopiedItem &item, DuplixReports &reports)
{
    if (!Has(kCapability) || geteuid() != 0) return Copied::Yes;
    // Root in a container may not give it. A right that is missing harms nobody.
    if (CopyOne(item, kCapability) || errno == EPERM || errno == ENOTSUP) return Copied::Yes;
    return _Report(reports);
}

} // namespace platform
