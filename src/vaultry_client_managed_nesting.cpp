#include "vaultry_client_managed_nesting.h"

#include "vaultry_client_managed.h"

#include "Platform/FileStatus.h"
#include "Platform/ItemId.h"
#include "Platform/UniqueFd.h"
#include "Shared/PathBuffer.h"
#include "Shared/vaultry_internal_failure.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kPointing = O_PATH | O_DIRECTORY | O_CLOEXEC;

enum class Answer { No, Yes, Unknown }; // Unknown with errno

Answer IsThere(int directory, const char *name)
{
    TQFileStatus status;
    if (platform::GetStatus({directory, name, name}, Links::NoFollow, &status) == 0) return Answer::Yes;
    return errno == ENOENT ? Answer::No : Answer::Unknown;
}

// A store has both of its own files. A directory with only one of them is somebody's own, or a store that is being
// destroyed.
Answer IsStore(int directory)
{
    const Answer hasLock = IsThere(directory, kLockFileName);
    return hasLock == Answer::Yes ? IsThere(directory, kStagingName) : hasLock;
}

// Climbs from `directory` to the top, until `isWanted`, called with the descriptor and id of each directory, gives an
// answer other than No.
template <class IsWanted> Answer Climb(UniqueFd directory, IsWanted isWanted)
{
    ItemId last;
    for (;;) {
        TQFileStatus status;
        if (!directory || platform::GetStatusOfFd(directory.get(), &status) != 0) return Answer::Unknown;
        const ItemId here = ItemId::Of(status);
        if (here == last) return Answer::No; // the top is its own parent
        if (const Answer answer = isWanted(directory.get(), here); answer != Answer::No) return answer;
        last = here;
        directory.Reset(openat(directory.get(), "..", kPointing));
    }
}

bool OutsideOr(Answer inside, const char *path, TQError **error)
{
    if (inside == Answer::No) return true;
    if (inside == Answer::Yes)
        return Failure(error).Refused(kTQStatusInvalidArgument, "path \"%s\" is inside the store", path);
    return Failure(error).Errno("Failed to look for a store around \"%s\"", path);
}

Answer IsStoreAmong(UniqueFd directory)
{
    return Climb(std::move(directory), [](int each, const ItemId &) { return IsStore(each); });
}

} // namespace

bool TQClientManagedStorageIsStore(const char *rootPath, TQError **error)
{
    if (!rootPath || rootPath[0] == '\0') return Failure(error).Refused(kTQStatusBadPath, "no path was supplied");
    const ErrnoKeeper keeper;
    const UniqueFd root(open(rootPath, kPointing | O_NOFOLLOW));
    TQFileStatus lockFile, staging;
    if (root && platform::GetStatus({root.get(), kLockFileName, rootPath}, Links::NoFollow, &lockFile) == 0 &&
        platform::GetStatus({root.get(), kStagingName, rootPath}, Links::NoFollow, &staging) == 0)
        return S_ISREG(lockFile.mode) && S_ISDIR(staging.mode);
    if (errno == ENOENT || errno == ENOTDIR) return false;
    return Failure(error).Errno("Failed to look for a store at \"%s\"", rootPath);
}

bool _RequireOutsideStores(const char *path, TQError **error)
{
    const ErrnoKeeper keeper;
    UniqueFd directory(open(ParentPath(path).c_str(), kPointing));
    if (!directory && (errno == ENOENT || errno == ENOTDIR)) return true;
    return OutsideOr(IsStoreAmong(std::move(directory)), path, error);
}

bool _RequireNoStoreInside(const char *path, const char *root, TQError **error)
{
    const ErrnoKeeper keeper;
    TQFileStatus tree;
    if (platform::GetStatus(Item::AtPath(path), Links::NoFollow, &tree) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return true;
        return Failure(error).Errno("stat(\"%s\") failed", path);
    }
    if (!S_ISDIR(tree.mode)) return true;
    const ItemId document = ItemId::Of(tree);
    const Answer contains = Climb(UniqueFd(open(root, kPointing)),
                                  [&](int, const ItemId &each) { return each == document ? Answer::Yes : Answer::No; });
    if (contains == Answer::No) return true;
    if (contains == Answer::Yes)
        return Failure(error).Refused(kTQStatusInvalidArgument, "path \"%s\" contains the store", path);
    return Failure(error).Errno("Failed to look for the store in \"%s\"", path);
}

bool _RequireNoStoreAround(const char *root, TQError **error)
{
    const ErrnoKeeper keeper;
    const UniqueFd self(open(root, kPointing));
    if (!self) return Failure(error).Errno("Failed to look for a store around \"%s\"", root);
    return OutsideOr(IsStoreAmong(UniqueFd(openat(self.get(), "..", kPointing))), root, error);
}
