// The exchange of a document for the copy that is restored.
//
// The copy waits beside the document, under the placeholder's name, until it is whole, has the document's rights and is
// on disk. Then the two change places by one call, so that the document's path is never empty and never holds half of
// anything. What comes out is held against what was looked at first; only then is it given up. Where the volume can't
// exchange, two renames do it, with the document's place between them noted on disk before.
//
// Always: each object undoes what it did when its scope ends without success. What is removed or renamed on the way
// back is only what was put there, told by device and inode. Two exceptions: once a part of the old document has gone,
// the new one stays; and a document that can't go home stays where it is, with a line in the log.

#pragma once

#include "TQLibrary_restore_beside.h"
#include "vaultry_client_managed_staging.h"

// The two changing places.
class Exchange {
public:
    // All borrowed. `restoredName` is the document's, unless the extension changes.
    Exchange(const ReplacedDocument &document, Beside &copy, StagingDirectory &staging, const char *restoredPath,
             const StagedCopy &staged)
        : document_(document), copy_(copy), aside_(document, staging), staging_(staging), restoredPath_(restoredPath),
          staged_(staged)
    {
    }
    ~Exchange() { TakeBack(); }
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    // What is to happen, noted on disk before anything stands beside the document.
    bool Note(TQError **error);

    // The copy, to the placeholder.
    bool Bring(TQError **error);
    bool Do(TQError **error);
    bool RemoveOld(TQError **error);

    // The other way round, as far as what was put there is still there. Done at the end of the scope too.
    void TakeBack();

    // Whether nothing that was at the document's path waits elsewhere: it is back, or given up.
    bool isDocumentHome() const { return old_[0] == '\0'; }
    // Whether somebody saved the document meanwhile, or a part of the old one is gone: the backup then stays.
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
