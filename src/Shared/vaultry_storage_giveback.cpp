// An add by moving that fails gives the document back, with the rights that archiving took, at its old path.
//
// Once moved, the item may be somebody's only copy. It is renamed, never copied, and never over anything that stands at
// its old path meanwhile. The rights come first: if this is cut short, the document still lies where it is looked for,
// and the next attempt goes on. At its old path, nobody would know that rights are missing.

#include "Shared/vaultry_storage.h"

#include "Platform/Attributes.h"
#include "Platform/ErrnoKeeper.h"
#include "Platform/FileStatus.h"
#include "Platform/ProcPath.h"
#include "Platform/Rename.h"
#include "Platform/Times.h"
#include "Platform/TreeWalk.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_storage_lift.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Kind = TreeWalk::Kind;

struct Rights {
    mode_t mode;
    uint32_t flags;
};

// Gets what the item had before this add took it; false if it took nothing. An older record came along with the
// document and tells nothing.
bool GetRightsOfBefore(const Item &item, const TreeWalk::Entry &entry, const MovedDocument &document, Rights *rights,
                       bool *isRecorded)
{
    uint8_t saved = 0;
    const uint32_t others = entry.status.flags & ~kBlockingFlags;
    const ssize_t length =
        platform::GetAttribute(item, Links::Follow, kSavedPermissionsAttribute, &saved, sizeof saved);
    const bool isTop = entry.level == 0 && document.knowsTop && entry.status.inode == document.top.inode;
    *isRecorded = length == 1 && (!isTop || saved == SavedPermissionsOf(document.topMode, document.topFlags));
    if (isTop)
        *rights = {static_cast<mode_t>((entry.status.mode & 07777U & ~kWriteBits) | (document.topMode & kWriteBits)),
                   others | (document.topFlags & kBlockingFlags)}; // no other bit was taken
    else
        *rights = {(entry.status.mode & 07777U & ~kWriteBits) | SavedWriteBits(saved), others | SavedFlags(saved)};
    return isTop || (*isRecorded && !platform::IsBefore(entry.status.changeTime, document.since));
}

// An add writes the options before the item gets its name.
void PutBackOptions(const Item &item, const BroughtOptions &options)
{
    if (options.isThere)
        (void)platform::SetAttribute(item, Links::Follow, kOptionsAttribute, &options.word, sizeof options.word);
    else if (options.isKnown)
        (void)platform::RemoveAttribute(item, Links::Follow, kOptionsAttribute);
}

template <size_t capacity> void PutBack(const Item &item, const char *name, const BroughtAttribute<capacity> &brought)
{
    if (brought.isThere)
        (void)platform::SetAttribute(item, Links::Follow, name, brought.bytes, brought.length);
    else if (brought.isKnown)
        (void)platform::RemoveAttribute(item, Links::Follow, name);
}

// Best effort, item by item: what can't be undone stays protected, and its byte still says what it had.
void UndoArchiving(const TreeWalk::Entry &entry, const MovedDocument &document)
{
    const UniqueFd pinned = platform::PinItem(entry.item, entry.status);
    if (!pinned) return;
    const platform::ProcPath path(pinned.get());
    const Item item{AT_FDCWD, path.c_str(), entry.item.path};
    Rights rights{};
    bool isRecorded = false;
    if (!GetRightsOfBefore(item, entry, document, &rights, &isRecorded)) return;

    // Removing the byte takes write permission, which the item may not have had. No flag may bar it either: the item at
    // which archiving failed already has its flags back.
    TQFileStatus now = entry.status;
    const uint32_t others = now.flags & ~kBlockingFlags;
    if (platform::SetFlagsOfPinned(pinned.get(), now, others) == 0) now.flags = others;
    (void)platform::SetModeOfPinned(pinned.get(), rights.mode | 0200);
    if (isRecorded) (void)platform::RemoveAttribute(item, Links::Follow, kSavedPermissionsAttribute);
    const bool isTop = entry.level == 0 && document.knowsTop && entry.status.inode == document.top.inode;
    if (isTop) {
        PutBackOptions(item, document.topOptions);
        PutBack(item, kInfoAttribute, document.topInfo);
        PutBack(item, kDisplayNameAttribute, document.topName);
    }
    if ((rights.mode & 0200) == 0) (void)platform::SetModeOfPinned(pinned.get(), rights.mode);
    (void)platform::SetFlagsOfPinned(pinned.get(), now, rights.flags);
}

// Whether this is the copy that was to take the place of a hard link when the add was cut short. It is younger than the
// add, has one link, and is named after a file beside it that has more.
bool IsLinkCopy(const TreeWalk::Entry &entry, const MovedDocument &document)
{
    const char *const name = entry.item.name;
    const size_t length = LengthOfLinkedName(name);
    if (entry.kind != Kind::File || length == 0) return false;
    const bool isYoung = entry.status.hasBirthTime && !platform::IsBefore(entry.status.birthTime, document.since);
    if (entry.status.linkCount != 1 || !isYoung || document.since.tv_sec == 0) return false;

    char original[NAME_MAX + 1];
    (void)snprintf(original, sizeof original, "%.*s", static_cast<int>(length), name);
    TQFileStatus status;
    return platform::GetStatus({entry.item.directory, original, original}, Links::NoFollow, &status) == 0 &&
           S_ISREG(status.mode) && status.linkCount > 1;
}

void TakeAway(const TreeWalk::Entry &linkCopy)
{
    // A copied flag would bar its removal.
    if (linkCopy.status.flags != 0) (void)platform::SetFlags(linkCopy.item, Links::NoFollow, 0);
    if (unlinkat(linkCopy.item.directory, linkCopy.item.name, 0) != 0 && errno != ENOENT)
        Failure(nullptr).Errno("Failed to remove \"%s\"", linkCopy.item.path);
}

void UndoArchivingOfTree(const Item &moved, const MovedDocument &document)
{
    TreeWalk walk;
    if (!walk.Open(moved)) {
        Failure(nullptr).Errno("Failed to give the document at \"%s\" its permissions back", moved.path);
        return;
    }
    while (const TreeWalk::Entry *entry = walk.Next()) {
        if (IsLinkCopy(*entry, document))
            TakeAway(*entry);
        else if (entry->kind == Kind::File || entry->kind == Kind::Other || entry->kind == Kind::DirectoryDone)
            UndoArchiving(*entry, document);
    }
}

// Puts back what had to be lifted for the rename.
void PutBackRights(const Item &item, const TQFileStatus &status)
{
    const UniqueFd pinned = platform::PinItem(item, status);
    if (pinned && platform::SetModeOfPinned(pinned.get(), status.mode & 07777) != 0 && errno != EOPNOTSUPP)
        Failure(nullptr).Errno("Failed to put the mode of \"%s\" back", item.path);
    TQFileStatus now;
    if (pinned && platform::GetStatusOfFd(pinned.get(), &now) == 0 &&
        platform::SetFlagsOfPinned(pinned.get(), now, status.flags) != 0 && errno != ENOTSUP)
        Failure(nullptr).Errno("Failed to put the flags of \"%s\" back", item.path);
}

} // namespace

bool _GiveDocumentBack(const Item &moved, const Item &home, const MovedDocument &document)
{
    const ErrnoKeeper keeper;
    TQFileStatus status;
    bool known = platform::GetStatus(moved, Links::NoFollow, &status) == 0;
    if (!known && errno == ENOENT) return true;
    // It may be home already, and a kill has left only its second name here. Its rights may have been changed since,
    // and are left alone.
    const bool isHomeToo =
        known && !S_ISDIR(status.mode) && platform::HoldsItem(home, ItemId::Of(status)) == platform::Held::Yes;
    if (isHomeToo) return platform::RenameIntoNothing(moved, ItemId::Of(status), home) == 0;
    UndoArchivingOfTree(moved, document);

    known = platform::GetStatus(moved, Links::NoFollow, &status) == 0;
    const UniqueFd pinned = known ? platform::PinItem(moved, status) : UniqueFd();
    if (pinned) (void)_MakePinnedMovable(pinned.get(), status); // the rename tells whether it was enough
    const bool isHome = platform::RenameIntoNothing(moved, known ? ItemId::Of(status) : ItemId(), home) == 0;
    if (!isHome)
        Failure(nullptr).Errno("Failed to give the document back to \"%s\"; it lies at \"%s\"", home.path, moved.path);
    if (known) PutBackRights(isHome ? home : moved, status);
    return isHome;
}
