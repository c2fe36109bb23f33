// A document that is to be replaced, and the item that stands beside it during its restore.
//
// Everything here goes by names in the document's folder, which is held open: whatever its path leads to by now, the
// work stays where it began. Only a copy from another volume is written by path, and only into the placeholder.

#pragma once

#include "vaultry_client_managed_item.h"
#include "vaultry_client_managed_staging.h"

#include "Platform/Item.h"
#include "Platform/ItemId.h"
#include "Platform/Rename.h"
#include "Platform/UniqueFd.h"
#include "Shared/PathBuffer.h"
#include "Shared/vaultry_flush.h"

#include <vaultry/error.h>
#include <vaultry/file_status.h>

#include <climits>
#include <cstdio>
#include <cstring>

// The document as it was looked at first, and its folder, held open.
struct ReplacedDocument {
    const char *path;    // as the client gave it, for messages
    TrimmedPath trimmed; // without slashes at its end
    TQFileStatus itself; // what stands at the path
    TQFileStatus rights; // the same, or what a link leads to: whose mode and flags the restored item gets
    bool extensionHidden = false;
    bool givesRights = true; // one item of a document gives none: its copy keeps those that came with it
    UniqueFd folder{};

    explicit ReplacedDocument(const char *documentPath) : path(documentPath), trimmed(documentPath) {}
    // One item of a document.
    ReplacedDocument(const char *itemPath, FoundItem item)
        : path(itemPath), trimmed(itemPath), itself(item.status), rights(item.status), givesRights(false),
          folder(std::move(item.folder))
    {
    }

    // 0, or -1 with errno: ENOENT if there is nothing. Whatever is saved after it shows.
    int Look();
    // Reads its rights again, which may have become narrower while the copy was made.
    bool LookAgain(TQError **error);
    bool OpenFolder(TQError **error);

    const char *name() const;
    int folderLength() const; // of the folder's path with its slash
    Item At(const char *nameInFolder) const { return {folder.get(), nameInFolder, path}; }
    platform::Held Holds(const char *nameInFolder, const ItemId &id) const
    {
        return platform::HoldsItem(At(nameInFolder), id);
    }

    // Renames the item `id`. It replaces nothing, unless `mayReplace` says that the caller knows what has the new name.
    // Yes once the item has that name; Unknown, with errno, if neither the answer nor a look tells.
    platform::Held Rename(const char *from, const char *to, const ItemId &id, bool mayReplace = false) const;
    // Whether the folder's path still leads to it: a program that saves a document which is a folder replaces it.
    // 0, or -1 with errno.
    int IsFolderThere(bool *isThere) const;
    // Whether what stands there is what was looked at first, and has not been written to since; of an item, in a folder
    // that is still the document's. 0, or -1 with errno.
    int IsUnchangedAt(const char *nameInFolder, bool *isUnchanged) const;
};

// The copy that comes from staging.
struct StagedCopy {
    const char *path;
    TQFileStatus status;
};

// A unique item beside a document: at first an empty placeholder, then the copy. It is removed at the end of its scope,
// unless it is released. If it can't be removed, it is left to a repair, with the staging directory that notes it.
class Beside {
public:
    Beside(const ReplacedDocument &document, StagingDirectory &staging) : document_(document), staging_(staging) {}
    ~Beside();
    Beside(const Beside &) = delete;
    Beside &operator=(const Beside &) = delete;

    // Chooses a free name, which follows the document's kind. It is to be noted before anything stands there.
    bool Choose(bool isDirectory, TQError **error);
    bool Make(bool isDirectory, TQError **error);

    // Bring renames the staged copy onto the placeholder. If it says that the copy is on another volume, CopyAcross
    // copies it there.
    bool Bring(const StagedCopy &staged, bool *isAcross, TQError **error);
    bool CopyAcross(const StagedCopy &staged, const char *restoredPath, TQError **error);

    // For a copy where nothing is: it is opened, gets its rights, and then its name. If Place says that it is on
    // another volume, it is copied across as above, and gets its name by PlaceCopied.
    bool Open(const StagedCopy &staged, TQError **error);
    bool Place(const StagedCopy &staged, bool *isAcross, TQError **error);
    bool PlaceCopied(TQError **error);

    // Gives the copy the document's owner and group where that is possible, its hidden extension, access-control lists,
    // mode, and the flags that don't bar a rename; or the mode and such flags of its own. All of it is on disk when it
    // returns true.
    bool GiveRights(mode_t staged, const char *restoredPath, TQError **error);
    // Gives it the flags that bar a rename, once it has its place.
    bool GiveBlockingFlags(const char *restoredPath, TQError **error);

    // Flushes the folder's entries.
    bool FlushFolder(TQError **error) const;

    // Makes it movable again, for the way back.
    void TakeBlockingFlags();

    // Says that it has another name now, or that it is no longer ours.
    void MovedTo(const char *name)
    {
        wasShown_ = wasShown_ || strcmp(name, placeholder_) != 0;
        (void)snprintf(name_, sizeof name_, "%.*s", NAME_MAX, name);
    }
    void Release() { name_[0] = '\0'; }

    // Whether somebody has worked on it since it had the document's name.
    bool IsWorkedOn() const;

    const char *name() const { return name_; }
    const char *placeholder() const { return placeholder_; } // its first name, once chosen
    const char *path() const { return path_.c_str(); }       // of the placeholder
    bool isAcross() const { return isAcross_; }              // copied from another volume
    ItemId id() const { return ItemId::Of(status_); }
    const TQFileStatus &status() const { return status_; }

private:
    bool FailToMake(bool isDirectory, TQError **error) const;
    bool CameAllTheSame(const StagedCopy &staged) const;
    bool PlaceFrom(const Item &from, const ItemId &id, bool *isAcross, TQError **error);
    bool OpenCopy(const Item &where, const ItemId &expected, TQError **error);
    bool GiveOwner();
    bool GiveDocumentsRights(mode_t staged, const char *restoredPath);
    bool Flush(TQError **error) const;
    Item item() const { return {document_.folder.get(), name_, path_.c_str()}; }

    const ReplacedDocument &document_;
    StagingDirectory &staging_;
    char name_[NAME_MAX + 1] = ""; // empty when there is nothing to remove
    char placeholder_[NAME_MAX + 1] = "";
    PathBuffer path_;
    TQFileStatus status_{}; // of the placeholder, then of the copy
    UniqueFd copy_;         // opened before its final mode, which may let nobody read it; none for a link
    TreeFlush flush_;
    struct timespec made_ {}; // when the placeholder was, by the volume's clock
    TQFileStatus given_{};    // of the copy with all its rights
    bool isAcross_ = false;
    bool wasShown_ = false;
};
