#include "TQLibrary_restore_beside.h"

#include "TQLibrary_restore.h"
#include "vaultry_client_managed_placeholder.h"

#include "Platform/AccessLists.h"
#include "Platform/FileStatus.h"
#include "Platform/Flush.h"
#include "Platform/InodeFlags.h"
#include "Platform/ProcPath.h"
#include "Platform/Rename.h"
#include "Platform/ScopeExit.h"
#include "Platform/Times.h"
#include "Platform/TreeWalk.h"
#include "Platform/UniqueNames.h"
#include "Platform/Volume.h"
#include "Platform/duplix.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_storage.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using platform::Held;

namespace {

// The most that is added to a document's path, its zero included.
constexpr size_t kLongestAddition = sizeof PlaceholderName::kMark - 1 + sizeof PlaceholderName::kUnique;

} // namespace

int ReplacedDocument::Look()
{
    if (platform::GetStatus(Item::AtPath(path), Links::Follow, &rights) != 0 ||
        platform::GetStatus(Item::AtPath(trimmed.c_str()), Links::NoFollow, &itself) != 0)
        return -1;
    // A file that somebody writes to all the time is not waited for, and one that somebody takes away meanwhile stays
    // the one that was seen: the exchange will find that it has changed.
    for (int waits = 0; waits < 2 && S_ISREG(itself.mode) && platform::OutlastSecond(itself.changeTime); ++waits) {
        const ErrnoKeeper keeper;
        (void)platform::GetStatus(Item::AtPath(path), Links::Follow, &rights);
        (void)platform::GetStatus(Item::AtPath(trimmed.c_str()), Links::NoFollow, &itself);
    }
    extensionHidden = TQFSFilenameExtensionIsHidden(path);
    return 0;
}

bool ReplacedDocument::OpenFolder(TQError **error)
{
    if (!folder) folder.Reset(open(ParentPath(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return folder || Failure(error).Errno("Failed to open the folder of \"%s\"", path);
}

int ReplacedDocument::folderLength() const
{
    return static_cast<int>(name() - trimmed.c_str());
}

const char *ReplacedDocument::name() const
{
    const char *const slash = strrchr(trimmed.c_str(), '/');
    return slash ? slash + 1 : trimmed.c_str();
}

bool ReplacedDocument::LookAgain(TQError **error)
{
    if (!givesRights) return true;
    TQFileStatus now;
    if (platform::GetStatus(At(name()), Links::Follow, &now) != 0)
        return Failure(error).Errno("stat(\"%s\") failed", path);
    if (ItemId::Of(now) == ItemId::Of(rights)) rights = now;
    return true; // the exchange notices if it is another item
}

Held ReplacedDocument::Rename(const char *from, const char *to, const ItemId &id, bool mayReplace) const
{
    const int result =
        mayReplace ? renameat(folder.get(), from, folder.get(), to) : platform::RenameIntoNothing(At(from), id, At(to));
    return result == 0 ? Held::Yes : platform::HasMoved(At(from), id, At(to));
}

int ReplacedDocument::IsFolderThere(bool *isThere) const
{
    TQFileStatus held, found;
    if (platform::GetStatusOfFd(folder.get(), &held) != 0) return -1;
    const bool isFound = platform::GetStatus(Item::AtPath(ParentPath(path).c_str()), Links::Follow, &found) == 0;
    if (!isFound && errno != ENOENT && errno != ENOTDIR) return -1;
    *isThere = isFound && ItemId::Of(held) == ItemId::Of(found);
    return 0;
}

int ReplacedDocument::IsUnchangedAt(const char *nameInFolder, bool *isUnchanged) const
{
    TQFileStatus status;
    if (platform::GetStatus(At(nameInFolder), Links::NoFollow, &status) != 0) return -1;
    bool isThere = true;
    if (!givesRights && IsFolderThere(&isThere) != 0) return -1;
    const bool isSame = isThere && ItemId::Of(status) == ItemId::Of(itself);
    *isUnchanged =
        isSame && (!S_ISREG(itself.mode) || (status.size == itself.size &&
                                             platform::IsSameTime(status.modificationTime, itself.modificationTime)));
    return 0;
}

// An item whose mode gives its owner nothing could not be removed, so it gets its owner's rights first.
Beside::~Beside()
{
    if (name_[0] == '\0') return;
    const ErrnoKeeper keeper;
    TQFileStatus found;
    if (platform::GetStatus(item(), Links::NoFollow, &found) != 0) {
        if (errno != ENOENT) staging_.Keep();
        return;
    }
    if (ItemId::Of(found) != id()) {
        if (strcmp(name_, placeholder_) == 0) staging_.Keep(); // it may be the document, which only the note tells
        return;
    }
    TakeBlockingFlags();
    if (copy_) (void)fchmod(copy_.get(), (found.mode & 07777) | S_IRWXU);
    TreeRemoval how;
    how.expected = &status_;
    if (!_RemoveTreeAt(item(), how, nullptr) || (isAcross_ && !FlushFolder(nullptr))) staging_.Keep();
}

// The message shows the template.
bool Beside::FailToMake(bool isDirectory, TQError **error) const
{
    const PlaceholderName pattern(document_.name(), S_ISDIR(document_.rights.mode));
    PathBuffer path;
    const Failure failure(error);
    (void)path.Format("%.*s%s", document_.folderLength(), document_.trimmed.c_str(), pattern.text);
    return isDirectory ? failure.Errno("mkdtemp(\"%s\") failed", path.c_str())
                       : failure.Errno("mkstemps(\"%s\") failed", path.c_str());
}

bool Beside::Choose(bool isDirectory, TQError **error)
{
    if (strlen(document_.path) + kLongestAddition > PathBuffer::kCapacity)
        return Failure(error).Status(kTQStatusBadPath, "generated path is too long");
    PlaceholderName pattern(document_.name(), S_ISDIR(document_.rights.mode));
    const int suffix = static_cast<int>(pattern.extensionLength);
    if (platform::ChooseUniqueNameAt(document_.folder.get(), pattern.text, suffix) != 0)
        return FailToMake(isDirectory, error);
    (void)snprintf(placeholder_, sizeof placeholder_, "%s", pattern.text);
    (void)path_.Format("%.*s%s", document_.folderLength(), document_.trimmed.c_str(), placeholder_);
    return true;
}

bool Beside::Make(bool isDirectory, TQError **error)
{
    const int folder = document_.folder.get();
    UniqueFd file(isDirectory ? -1 : platform::MakeOwnFileAt(folder, placeholder_));
    if (isDirectory ? platform::MakeOwnDirectoryAt(folder, placeholder_) != 0 : !file)
        return FailToMake(isDirectory, error);
    const bool isKnown = isDirectory ? platform::GetStatus(document_.At(placeholder_), Links::NoFollow, &status_) == 0
                                     : platform::GetStatusOfFd(file.get(), &status_) == 0;
    // Nothing was written to it, and only its name tells what to remove.
    if (!isKnown || file.Close() != 0) {
        Failure(error).Errno("stat(\"%s\") failed", path_.c_str());
        if (unlinkat(folder, placeholder_, isDirectory ? AT_REMOVEDIR : 0) != 0) staging_.Keep();
        return false;
    }
    made_ = status_.changeTime;
    MovedTo(placeholder_);
    return true;
}

bool Beside::CameAllTheSame(const StagedCopy &staged) const
{
    const ErrnoKeeper keeper;
    return document_.Holds(name_, ItemId::Of(staged.status)) == Held::Yes;
}

bool Beside::Bring(const StagedCopy &staged, bool *isAcross, TQError **error)
{
    const int result = renameat(AT_FDCWD, staged.path, document_.folder.get(), name_);
    if (result == 0 || CameAllTheSame(staged)) {
        status_ = staged.status;
        return OpenCopy(item(), ItemId::Of(staged.status), error);
    }
    *isAcross = errno == EXDEV;
    return *isAcross ||
           Failure(error).Errno("Failed to rename file from staging (\"%s\" -> \"%s\")", staged.path, path_.c_str());
}

bool Beside::Open(const StagedCopy &staged, TQError **error)
{
    (void)path_.Format("%s", document_.trimmed.c_str());
    return OpenCopy(Item::AtPath(staged.path), ItemId::Of(staged.status), error);
}

bool Beside::Place(const StagedCopy &staged, bool *isAcross, TQError **error)
{
    return PlaceFrom(Item::AtPath(staged.path), ItemId::Of(staged.status), isAcross, error);
}

bool Beside::PlaceCopied(TQError **error)
{
    bool isAcross = false;
    return PlaceFrom(item(), id(), &isAcross, error);
}

bool Beside::PlaceFrom(const Item &from, const ItemId &id, bool *isAcross, TQError **error)
{
    const Item to = document_.At(document_.name());
    if (platform::RenameIntoNothing(from, id, to) != 0 && platform::HasMoved(from, id, to) != Held::Yes) {
        *isAcross = errno == EXDEV;
        return *isAcross ||
               Failure(error).Errno("Failed to rename file from staging (\"%s\" -> \"%s\")", from.path, document_.path);
    }
    MovedTo(document_.name());
    return true;
}

bool Beside::CopyAcross(const StagedCopy &staged, const char *restoredPath, TQError **error)
{
    isAcross_ = true;
    flush_ = TreeFlush::At(path_.c_str());
    platform::DuplixOptions options;
    options.flushEach = true;
    if (!S_ISLNK(staged.status.mode))
        options.into = &status_;
    else
        (void)unlinkat(document_.folder.get(), name_, 0); // a link can't be filled, only made anew
    if (platform::duplix(staged.path, path_.c_str(), /*callback=*/nullptr, /*context=*/nullptr, options) != 0)
        return Failure(error).Errno("duplix from \"%s\" to \"%s\" failed", staged.path, restoredPath);
    // This goes to the document's own path, where the old document still is: clients know a copy from another volume as
    // new.
    (void)_TransferBirthTime(staged.path, document_.path);
    if (S_ISLNK(staged.status.mode) && platform::GetStatus(item(), Links::NoFollow, &status_) != 0)
        return Failure(error).Errno("stat(\"%s\") failed", path_.c_str());
    return OpenCopy(item(), id(), error);
}

// The item that is opened has to be the one that was brought. A link can't be opened, and need not be.
bool Beside::OpenCopy(const Item &where, const ItemId &expected, TQError **error)
{
    copy_.Reset(openat(where.directory, where.name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    TQFileStatus found;
    const bool isLink = !copy_ && errno == ELOOP;
    if ((!copy_ && !isLink) || (isLink ? platform::GetStatus(where, Links::NoFollow, &found)
                                       : platform::GetStatusOfFd(copy_.get(), &found)) != 0)
        return Failure(error).Errno("failed to open \"%s\"", path_.c_str());
    if (ItemId::Of(found) != expected) {
        errno = ESTALE;
        return Failure(error).Errno("failed to open \"%s\"", path_.c_str());
    }
    status_ = found;
    return true;
}

// A process that may not give the copy away may still be in the document's group. A volume without owners refuses both.
bool Beside::GiveOwner()
{
    const TQFileStatus &document = document_.rights;
    const auto give = [&](uid_t owner) {
        if (fchown(copy_.get(), owner, document.group) != 0) return false;
        status_.group = document.group;
        return true;
    };
    const auto isForgiven = [] { return errno == EPERM || errno == EINVAL || errno == ENOTSUP; };
    if (status_.owner == document.owner && status_.group == document.group) return true;
    if (status_.owner != document.owner) {
        if (give(document.owner)) {
            status_.owner = document.owner;
            return true;
        }
        if (!isForgiven()) return false;
    }
    return give(static_cast<uid_t>(-1)) || isForgiven();
}

// False with errno.
bool Beside::GiveDocumentsRights(mode_t staged, const char *restoredPath)
{
    const platform::ProcPath open(copy_.get());
    _SetFileNameExtensionHiding({AT_FDCWD, open.c_str(), restoredPath}, Links::Follow, document_.extensionHidden);
    mode_t denied = 0;
    const Item document = document_.At(document_.name());
    return GiveOwner() && platform::GiveListsOf(document, Links::Follow, copy_.get(), &denied) == 0 &&
           fchmod(copy_.get(), _RestoredModeFor(staged, document_.rights, status_) & ~denied) == 0;
}

bool Beside::GiveRights(mode_t staged, const char *restoredPath, TQError **error)
{
    if (!copy_) return true; // a link that somebody put into the store has no rights of its own
    const bool isGiven =
        document_.givesRights ? GiveDocumentsRights(staged, restoredPath) : fchmod(copy_.get(), staged & 07777) == 0;
    if (!isGiven || platform::GetStatusOfFd(copy_.get(), &given_) != 0)
        return Failure(error).Errno("failed to set final mode on \"%s\"", restoredPath);
    const uint32_t flags = document_.rights.flags & ~kBlockingFlags;
    if (platform::SetFlagsOfKnown(copy_.get(), status_, flags) != 0) {
        if (errno != ENOTSUP) return Failure(error).Errno("failed to set final flags on \"%s\"", restoredPath);
    } else {
        status_.flags = flags;
    }
    return Flush(error);
}

// Flags that the copy's volume can't hold are left out.
bool Beside::GiveBlockingFlags(const char *restoredPath, TQError **error)
{
    const uint32_t flags = document_.rights.flags;
    if (!copy_ || flags == status_.flags) return true;
    if (platform::SetFlagsOfKnown(copy_.get(), status_, flags) == 0) {
        status_.flags = flags;
        return platform::FlushFd(copy_.get()) == 0 ||
               Failure(error).Errno("Failed to flush \"%s\" to disk", restoredPath);
    }
    return errno == ENOTSUP || Failure(error).Errno("failed to set final flags on \"%s\"", restoredPath);
}

void Beside::TakeBlockingFlags()
{
    const uint32_t flags = status_.flags & ~kBlockingFlags;
    if (copy_ && platform::SetFlagsOfKnown(copy_.get(), status_, flags) == 0) status_.flags = flags;
}

// The times that a copy brought along are older than its placeholder; one that was copied from another volume is
// younger. What can't be told counts as worked on.
bool Beside::IsWorkedOn() const
{
    const ErrnoKeeper keeper;
    TQFileStatus now;
    if (!wasShown_ || !copy_ || name_[0] == '\0') return false;
    if (platform::GetStatus(item(), Links::NoFollow, &now) != 0) return errno != ENOENT;
    if (ItemId::Of(now) != id()) return false;
    const bool isYounger = isAcross_ && platform::IsBefore(made_, given_.changeTime);
    const struct timespec since = isYounger ? given_.changeTime : made_;
    const bool hasNewTime = !platform::IsSameTime(now.modificationTime, given_.modificationTime) &&
                            !platform::IsBefore(now.modificationTime, since);
    if (hasNewTime || (S_ISREG(now.mode) && now.size != given_.size)) return true;
    if (!S_ISDIR(now.mode)) return false;
    (void)fchmod(copy_.get(), (now.mode & 07777) | S_IRWXU);
    const ScopeExit close([&] { (void)fchmod(copy_.get(), now.mode & 07777); });
    TreeWalk walk;
    if (!walk.Open(item())) return true;
    while (const TreeWalk::Entry *entry = walk.Next())
        if (!entry->hasStatus || entry->error != 0 ||
            (entry->level > 0 && platform::IsBefore(since, entry->status.changeTime)))
            return true;
    return false;
}

// A copy that came by a rename was flushed in staging, and only its top item has changed since. A copy that was written
// here was flushed item by item, unless the volume honours a flush.
bool Beside::Flush(TQError **error) const
{
    if (platform::FlushFd(copy_.get()) != 0)
        return Failure(error).Errno("Failed to flush \"%s\" to disk", path_.c_str());
    const bool isWhole = !isAcross_ || !S_ISDIR(status_.mode) || !platform::VolumeHonoursFlush(copy_.get());
    return isWhole || flush_.Flush(path_.c_str(), status_.mode, error);
}

// A process may be allowed to make entries in a folder, but not to read it. The copy is on the same volume.
bool Beside::FlushFolder(TQError **error) const
{
    const UniqueFd folder(openat(document_.folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const bool byVolume = !folder && errno == EACCES && copy_ && platform::VolumeHonoursFlush(copy_.get());
    const int result = folder     ? platform::FlushFd(folder.get())
                       : byVolume ? platform::FlushVolumeOfFd(copy_.get())
                                  : -1;
    if (result == 0) return true;
    const int length = document_.folderLength();
    PathBuffer path;
    (void)path.Format("%.*s", length > 1 ? length - 1 : length, document_.trimmed.c_str());
    return Failure(error).Errno("Failed to flush \"%s\" to disk", path.c_str());
}
