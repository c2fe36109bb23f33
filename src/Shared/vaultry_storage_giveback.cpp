// A by-moving add that fails gives the document back: with the rights that archiving took, moved home.
//
// Once moved, the item may be somebody's only copy. It is renamed, never copied, and never over anything that stands at
// its old path meanwhile. The rights come first: if this is cut short, the document still lies where it is looked
// for, and whoever gives it back next goes on. At home nobody would know that they are missing.

#include "Shared/vaultry_storage.h"

#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Platform/Rename.h"
#include "Platform/ScopeExit.h"
#include "Platform/TreeWalk.h"
#include "Shared/vaultry_internal_failure.h"

#include <cerrno>
#include <sys/stat.h>

namespace {

using Kind = TreeWalk::Kind;

// Best effort, item by item: what can't be undone stays protected, and its byte still says what it had.
void UndoArchiving(const TreeWalk::Entry &entry)
{
    uint8_t saved = 0;
    if (platform::GetAttribute(entry.item, Links::NoFollow, kSavedPermissionsAttribute, &saved, sizeof saved) != 1)
        return;
    const mode_t mode = (entry.status.mode & 07777U & ~mode_t{0222}) | SavedWriteBits(saved);
    const uint32_t others = entry.status.flags & ~kBlockingFlags;
    const uint32_t flags = others | ((saved & kSavedImmutable) ? uint32_t{kTQFlagImmutable} : 0) |
                           ((saved & kSavedAppend) ? uint32_t{kTQFlagAppend} : 0);

    // Removing the byte takes write permission, which the item may not have had, and no flag may stand in the way: the
    // item at which archiving failed has its flags already.
    if (others != entry.status.flags) (void)platform::SetFlags(entry.item, Links::NoFollow, others);
    (void)platform::SetMode(entry.item, Links::NoFollow, mode | 0200);
    (void)platform::RemoveAttribute(entry.item, Links::NoFollow, kSavedPermissionsAttribute);
    if ((mode & 0200) == 0) (void)platform::SetMode(entry.item, Links::NoFollow, mode);
    if (flags != others) (void)platform::SetFlags(entry.item, Links::NoFollow, flags);
}

void UndoArchivingOfTree(const char *path)
{
    TreeWalk walk;
    if (!walk.Open(path)) {
        Failure(nullptr).Errno("Failed to give the document at \"%s\" its permissions back", path);
        return;
    }
    while (const TreeWalk::Entry *entry = walk.Next())
        if (entry->kind == Kind::File || entry->kind == Kind::Other || entry->kind == Kind::DirectoryDone)
            UndoArchiving(*entry);
}

// What the rename needed lifted.
void PutBackRights(const Item &item, const TQFileStatus &status)
{
    if (platform::SetMode(item, Links::NoFollow, status.mode & 07777) != 0 && errno != ENOTSUP)
        Failure(nullptr).Errno("Failed to put the mode of \"%s\" back", item.path);
    if (platform::SetFlags(item, Links::NoFollow, status.flags) != 0 && errno != ENOTSUP)
        Failure(nullptr).Errno("Failed to put the flags of \"%s\" back", item.path);
}

} // namespace

bool _MakeMovable(const char *path, const TQFileStatus &status)
{
    const Item item = Item::AtPath(path);
    if ((status.flags & kBlockingFlags) != 0 &&
        platform::SetFlags(item, Links::NoFollow, status.flags & ~kBlockingFlags) != 0)
        return false;
    return !S_ISDIR(status.mode) || (status.mode & 0200) != 0 ||
           platform::SetMode(item, Links::NoFollow, (status.mode | 0200) & 07777) == 0;
}

bool _GiveDocumentBack(const char *moved, const char *source)
{
    const ErrnoKeeper keeper;
    TQFileStatus status;
    if (platform::GetStatus(Item::AtPath(moved), Links::NoFollow, &status) != 0 && errno == ENOENT) return true;
    UndoArchivingOfTree(moved);

    const bool known = platform::GetStatus(Item::AtPath(moved), Links::NoFollow, &status) == 0;
    if (known) (void)_MakeMovable(moved, status); // the rename tells whether it was enough
    const bool home = platform::RenameIntoNothing(moved, source) == 0;
    if (!home) Failure(nullptr).Errno("Failed to give the document back to \"%s\"; it lies at \"%s\"", source, moved);
    if (known) PutBackRights(Item::AtPath(home ? source : moved), status);
    return home;
}
