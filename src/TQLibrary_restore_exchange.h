// The exchange of a document for the copy that is restored.
//
// The copy waits beside the document, under the placeholder's name, until it is whole, has the document's rights and is
// on disk. Then the two change places by one call, so that the document's path is never empty and never holds half of
// anything. The item that comes out is compared with the one that was looked at first, and is given up only if they are
// the same. Where the volume can't exchange, two renames do it; the document's place between them is noted on disk
// before.
//
// Always: each object undoes what it did when its scope ends without success. The way back removes or renames only what
// was put there, known by device and inode. There are three exceptions. Once a part of the old document has gone, the
// new one stays. A copy that somebody has worked on under the document's name stays beside it. And a document that
// can't be put back stays where it is. The last two write a line in the log.

#pragma once

#include "TQLibrary_restore_beside.h"
#include "vaultry_client_managed_staging.h"

// Lets the document and the copy change places.
class Exchange {
public:
    // All borrowed. `restoredPath` is the document's, unless the extension changes.
    Exchange(const ReplacedDocument &document, Beside &copy, StagingDirectory &staging, const char *restoredPath,
             const StagedCopy &staged)
        : document_(document), copy_(copy), aside_(document, staging), staging_(staging), restoredPath_(restoredPath),
          staged_(staged)
    {
    }
    ~Exchange() { TakeBack(); }
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    // Notes on disk what is to happen, before anything stands beside the document.
    bool Note(TQError **error);

    // Brings the copy to the placeholder.
    bool Bring(TQError **error);
    bool Do(TQError **error);
    bool RemoveOld(TQError **error);

    // Takes the exchange back, if what was put there is still there. The end of the scope does so too.
    void TakeBack();

    // Whether the old document waits nowhere else: it is at its path, or given up.
    bool isDocumentHome() const { return old_[0] == '\0'; }
    // Whether the backup has to stay: somebody saved the document meanwhile, a part of the old one has gone, or it is
    // not known to be at its path.
    bool isBackupNeeded() const { return isBackupNeeded_ || !isDocumentHome(); }

private:
    const char *restoredName() const;
    const char *oldPath() const;
    bool changesName() const;
    bool Plan(PlannedExchange *plan) const;
    void NoteFailure();
    void BringHome();
    void LeaveCopy();
    platform::Held HeldAtHome() const;
    bool Rename(const char *from, const char *to, const ItemId &id, bool mayReplace = false);
    bool Swap(TQError **error);
    bool ByTwoRenames(TQError **error);
    bool ByNewName(TQError **error);
    bool RequireUnchanged(TQError **error);
    bool SwapBack();
    bool RenameBack();

    const ReplacedDocument &document_;
    Beside &copy_;
    Beside aside_; // where the document waits if the volume can't exchange
    StagingDirectory &staging_;
    const char *restoredPath_;
    const StagedCopy &staged_;
    char old_[NAME_MAX + 1] = ""; // where the old document is, while it is not at its path
    bool isSwapped_ = false;      // by one call
    bool isTakenBack_ = false;
    bool isBackupNeeded_ = false;
};
