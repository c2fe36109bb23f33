#include "vaultry_client_managed_clone_place.h"

#include "vaultry_client_managed_check.h"
#include "vaultry_client_managed_nesting.h"

#include "Platform/DirectoryReader.h"
#include "Platform/ErrnoKeeper.h"
#include "Platform/FileStatus.h"
#include "Platform/ItemId.h"
#include "Platform/Rename.h"
#include "Platform/UniqueNames.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_internal_failure.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kBesideTemplate[] = "%s/.vaultry_clone.XXXXXXX";

// A clone that root makes belongs to the store's owner already when it is compared, so it lies in a directory that
// stays root's.
const char *Inside()
{
    return geteuid() == 0 ? "/store" : "";
}

// Whether nobody else can give the names in a folder to something else. The members of a group trust each other, but
// root trusts none.
bool IsUndisturbed(const TQFileStatus &folder)
{
    const uint32_t others = S_IWOTH | (geteuid() == 0 ? S_IWGRP : 0);
    return (folder.owner == geteuid() || folder.owner == 0) &&
           ((folder.mode & others) == 0 || (folder.mode & S_ISVTX) != 0);
}

} // namespace

ClonePlace::~ClonePlace()
{
    if (!mustGo_) return;
    const ErrnoKeeper keeper;
    if (!isGiven_) {
        (void)_RemoveTreeAt(Item::AtPath(c_str()), {}, nullptr);
        (void)rmdir(beside_.c_str());
        return;
    }
    (void)fchmod(directory_.get(), S_IRWXU);
    for (const std::string &name : names_) (void)_RemoveTreeAt({directory_.get(), name.c_str(), c_str()}, {}, nullptr);
    (void)fchmod(directory_.get(), before_.mode & 07777);
}

bool ClonePlace::RequireNothingElse(TQError **error) const
{
    Names names(Item::AtPath(c_str()));
    while (const char *name = names.Next())
        if (names_.count(name) == 0)
            return Failure(error).Refused(kTQStatusExists, "path \"%s/%s\" came from somebody else", c_str(), name);
    errno = names.error();
    return errno == 0 || Failure(error).Errno("unable to read the directory \"%s\"", c_str());
}

bool ClonePlace::Begin(const char *store, const char *target, TQError **error)
{
    const TrimmedPath trimmed(target ? target : "");
    if (!*store || !trimmed || !target_.Format("%s", trimmed.c_str()))
        return Failure(error).Refused(kTQStatusBadPath, "no path for the new store was supplied, or a too long one");
    if (!_RequireOutsideStores(target_.c_str(), error) || !RequireUndisturbedFolder(error)) return false;
    TQFileStatus given;
    const bool isThere = platform::GetStatus(Item::AtPath(target_.c_str()), Links::NoFollow, &given) == 0;
    if (!isThere && errno != ENOENT) return Failure(error).Errno("stat(\"%s\") failed", target_.c_str());
    if (!(isThere ? Take(store, given, error) : MakeBeside(error))) return false;
    directory_.Reset(open(c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory_ || platform::GetStatusOfFd(directory_.get(), &before_) != 0)
        return Failure(error).Errno("Failed to open \"%s\"", c_str());
    mustGo_ = true;
    return true;
}

bool ClonePlace::RequireUndisturbedFolder(TQError **error) const
{
    const ParentPath folder(target_.c_str());
    TQFileStatus status;
    if (platform::GetStatus(Item::AtPath(folder.c_str()), Links::Follow, &status) != 0)
        return Failure(error).Errno("stat(\"%s\") failed", folder.c_str());
    return IsUndisturbed(status) ||
           Failure(error).Refused(kTQStatusPermissionDenied, "another user may rename what is in the folder \"%s\"",
                                  folder.c_str());
}

// In a directory that is there, a clone that root makes would be another's before it is done.
bool ClonePlace::MayFill(const char *store, const TQFileStatus &given, TQError **error) const
{
    TQFileStatus root;
    if (platform::GetStatus(Item::AtPath(store), Links::Follow, &root) != 0)
        return Failure(error).Errno("stat(\"%s\") failed", store);
    return (IsUndisturbed(given) && given.owner == geteuid() && root.owner == geteuid()) ||
           Failure(error).Refused(kTQStatusPermissionDenied,
                                  "path \"%s\" exists, and another user may change what is in it", target_.c_str());
}

bool ClonePlace::Take(const char *store, const TQFileStatus &given, TQError **error)
{
    Names names(Item::AtPath(target_.c_str()));
    if (names.Next() || names.error() != 0)
        return Failure(error).Refused(kTQStatusExists, "path \"%s\" already exists, and is no empty directory",
                                      target_.c_str());
    isGiven_ = true;
    place_ = target_;
    return MayFill(store, given, error);
}

bool ClonePlace::MakeBeside(TQError **error)
{
    if (!beside_.Format(kBesideTemplate, ParentPath(target_.c_str()).c_str()) ||
        !place_.Format("%s%s", beside_.c_str(), Inside()))
        return Failure(error).Refused(kTQStatusBadPath, "the path \"%s\" is too long", target_.c_str());
    if (platform::MakeUniqueDirectory(beside_.data()) != 0)
        return Failure(error).Errno("mkdtemp(\"%s\") failed", beside_.c_str());
    mustGo_ = true;
    (void)place_.Format("%s%s", beside_.c_str(), Inside());
    return *Inside() == '\0' || mkdir(c_str(), 0700) == 0 || Failure(error).Errno("mkdir(\"%s\") failed", c_str());
}

bool ClonePlace::PutThere(TQError **error)
{
    if (isGiven_) return !(mustGo_ = false);
    if (platform::RenameIntoNothing(Item::AtPath(c_str()), ItemId::Of(before_), Item::AtPath(target_.c_str())) != 0)
        return Failure(error).Errno("rename (\"%s\" -> \"%s\") failed", c_str(), target_.c_str());
    place_ = target_;
    if (!_FlushEntry(target_.c_str(), error)) return false;
    if (rmdir(beside_.c_str()) != 0) (void)_RemoveTreeAt(Item::AtPath(beside_.c_str()), {}, nullptr);
    return !(mustGo_ = false);
}
