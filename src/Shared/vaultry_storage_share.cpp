#include "Shared/vaultry_storage_share.h"

#include "Platform/Attributes.h"
#include "Platform/ErrnoKeeper.h"
#include "Platform/FileStatus.h"
#include "Platform/ItemId.h"
#include "Platform/KernelCalls.h"
#include "Platform/ProcPath.h"
#include "Platform/Times.h"
#include "Shared/vaultry_storage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Whether the stored file has what a copy of the document's file would have in its place. A file with a blocking flag
// can get no further link, and is not one that a generation shares.
bool HasSameStatus(const TQFileStatus &document, const TQFileStatus &stored)
{
    constexpr uint32_t kNotStored = kTQFlagCompressed | kTQFlagTracked;
    return S_ISREG(stored.mode) && (stored.mode & 07777) == (document.mode & 07777 & ~kWriteBits) &&
           stored.owner == document.owner && stored.group == document.group && stored.size == document.size &&
           (platform::HasHoles(stored) || !platform::HasHoles(document)) &&
           ((stored.flags | document.flags) & kBlockingFlags) == 0 && stored.flags == (document.flags & ~kNotStored) &&
           platform::IsSameTime(stored.modificationTime, document.modificationTime);
}

bool HasRecord(int stored, uint8_t record)
{
    uint8_t saved = 0;
    return platform::GetAttributeOfFd(stored, kSavedPermissionsAttribute, &saved, sizeof saved) == 1 && saved == record;
}

// Links what was compared, whatever its name leads to by now.
bool Link(int stored, const Item &destination)
{
    return linkat(AT_FDCWD, platform::ProcPath(stored).c_str(), destination.directory, destination.name,
                  AT_SYMLINK_FOLLOW) == 0;
}

// Whether the link is there, and the file still is what was compared.
bool IsLinked(const TQFileStatus &stored, const Item &destination)
{
    TQFileStatus now;
    return platform::GetStatus(destination, Links::NoFollow, &now) == 0 && ItemId::Of(now) == ItemId::Of(stored) &&
           HasSameStatus(stored, now);
}

} // namespace

void BaseFiles::Open(const char *generation)
{
    const ErrnoKeeper keeper;
    top_.Reset(open(generation, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool BaseFiles::IsSame(const DuplixOpened &file, uint8_t record, int base, const TQFileStatus &status,
                       const platform::Comparison::GoOn &goOn)
{
    const platform::ComparedFile document{file.source, file.status}, stored{base, status};
    return HasSameStatus(file.status, status) && HasRecord(base, record) &&
           comparison_.HaveSameAttributes(document, stored, kSavedPermissionsAttribute) &&
           comparison_.HaveSameBytes(document, stored, goOn);
}

BaseFiles::Outcome BaseFiles::Share(const DuplixOpened &file, uint8_t record, const platform::Comparison::GoOn &goOn)
{
    if (!top_) return Outcome::NotShared;
    const ErrnoKeeper keeper;
    // Only its owner may link a file that nobody can write to, and its owner can read it quietly.
    constexpr int kFlags = O_RDONLY | O_NOATIME | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const UniqueFd stored(platform::kernel::OpenBelow(top_.get(), file.below, kFlags));
    TQFileStatus status;
    if (!stored || platform::GetStatusOfFd(stored.get(), &status) != 0) return Outcome::NotShared;

    bool isStopped = false;
    const auto unlessStopped = [&](uint64_t bytes) {
        isStopped = !goOn(bytes);
        return !isStopped;
    };
    const bool isSame = IsSame(file, record, stored.get(), status, std::ref(unlessStopped)); // takes no memory
    if (isStopped) return Outcome::Stopped;
    if (!isSame) return Outcome::NotShared;
    if (Link(stored.get(), file.destination) && IsLinked(status, file.destination)) return Outcome::Shared;
    // Some volumes link, and lose the answer. The copy takes the place.
    (void)unlinkat(file.destination.directory, file.destination.name, 0);
    return Outcome::NotShared;
}
