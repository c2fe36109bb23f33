// See vaultry_client_managed_clone_compare.h.

#include "vaultry_client_managed_clone_compare.h"

#include "Platform/FileStatus.h"
#include "Platform/Times.h"
#include "Platform/UniqueFd.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

using Kind = TreeWalk::Kind;

constexpr Difference kContent{"contents", true};

// Some volumes keep whole seconds.
bool IsTimeKept(const struct timespec &time, const struct timespec &copy)
{
    return time.tv_sec == copy.tv_sec && (time.tv_nsec == copy.tv_nsec || copy.tv_nsec == 0);
}

// What a status tells, without the size.
Difference CompareStatus(const TQFileStatus &item, const TQFileStatus &copy)
{
    if (item.owner != copy.owner || item.group != copy.group) return {"owner"};
    if (!S_ISLNK(item.mode) && item.mode != copy.mode) return {"permissions"};
    // Whether a volume compresses is its own matter.
    if (((item.flags ^ copy.flags) & ~uint32_t{kTQFlagCompressed}) != 0) return {"flags"};
    return IsTimeKept(item.modificationTime, copy.modificationTime) ? Difference() : Difference{"time"};
}

bool IsSameLink(const Item &link, const char *copy)
{
    char target[PATH_MAX];
    char copied[PATH_MAX];
    const ssize_t length = readlinkat(link.directory, link.name, target, sizeof target);
    return length >= 0 && readlink(copy, copied, sizeof copied) == length &&
           memcmp(target, copied, static_cast<size_t>(length)) == 0;
}

} // namespace

// Notes one more name of a file with several. Whether it was found the same as this copy by another name.
bool ItemComparison::IsKnown(const TQFileStatus &file, const TQFileStatus &copy)
{
    SharedFile &shared = shared_.try_emplace(ItemId::Of(file), SharedFile{{}, file.linkCount}).first->second;
    const bool isKnown = shared.same == ItemId::Of(copy);
    if (--shared.namesLeft == 0) shared_.erase(ItemId::Of(file));
    return isKnown;
}

Difference ItemComparison::CompareOpened(const platform::ComparedFile &item, const platform::ComparedFile &copy,
                                         const GoOn &goOn)
{
    if (!comparison_.HaveSameAttributes(item, copy, /*except=*/"")) return {"attributes", true};
    if (!S_ISREG(item.status.mode)) return {};
    (void)posix_fadvise(copy.fd, 0, 0, POSIX_FADV_DONTNEED);
    if (!comparison_.HaveSameBytes(item, copy, goOn)) return kContent;
    bytes_ += item.status.size;
    return {};
}

Difference ItemComparison::Compare(const TreeWalk::Entry &entry, const std::string &copy, const GoOn &goOn)
{
    const TQFileStatus &item = entry.status;
    TQFileStatus status;
    if (platform::GetStatus(Item::AtPath(copy.c_str()), Links::NoFollow, &status) != 0 ||
        ((status.mode ^ item.mode) & S_IFMT) != 0)
        return kContent;
    if (entry.kind == Kind::Link) return IsSameLink(entry.item, copy.c_str()) ? CompareStatus(item, status) : kContent;
    const bool isShared = entry.kind == Kind::File && item.linkCount > 1;
    if (isShared && IsKnown(item, status)) return {};

    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const UniqueFd file = entry.kind == Kind::File ? opener_.Open(entry.item, kFlags, item.owner) : UniqueFd();
    const UniqueFd copied(open(copy.c_str(), kFlags));
    const int original = entry.kind == Kind::File ? file.get() : entry.fd;
    if (original < 0 || !copied) return kContent;
    Difference difference = CompareOpened({original, item}, {copied.get(), status}, goOn);
    if (!difference.what) difference = CompareStatus(item, status);
    const auto shared = isShared && !difference.what ? shared_.find(ItemId::Of(item)) : shared_.end();
    if (shared != shared_.end()) shared->second.same = ItemId::Of(status);
    return difference;
}
