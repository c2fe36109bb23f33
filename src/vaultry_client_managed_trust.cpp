#include "vaultry_client_managed_trust.h"

#include "Platform/FileStatus.h"
#include "Platform/ItemId.h"
#include "Platform/UniqueFd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// Whether each of `rights`, as they stand for others, is granted to `owner`.
static bool _Grants(const TQFileStatus &folder, mode_t rights, uid_t owner)
{
    const mode_t wanted = folder.owner == owner ? rights << 6 : rights;
    return (folder.mode & wanted) == wanted;
}

// Whether `owner` could have come to the open `folder` at all.
static bool _OwnerReaches(int folder, uid_t owner)
{
    ItemId last;
    UniqueFd above(openat(folder, "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (;;) {
        TQFileStatus status;
        if (!above || platform::GetStatusOfFd(above.get(), &status) != 0 || !_Grants(status, S_IXOTH, owner))
            return false;
        if (ItemId::Of(status) == last) return true; // the top is its own parent
        last = ItemId::Of(status);
        above.Reset(openat(above.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
}

bool _OwnerMayChange(int folder, const TQFileStatus *item, uid_t owner)
{
    if (geteuid() == owner || owner == 0) return true;
    TQFileStatus status;
    if (platform::GetStatusOfFd(folder, &status) != 0 || !_Grants(status, S_IWOTH | S_IXOTH, owner)) return false;
    const bool isHis = !item || item->owner == owner || status.owner == owner;
    return (isHis || (status.mode & S_ISVTX) == 0) && _OwnerReaches(folder, owner);
}
