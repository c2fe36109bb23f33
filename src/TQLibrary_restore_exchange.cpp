#include "TQLibrary_restore_exchange.h"

#include "Platform/FileStatus.h"
#include "Platform/Rename.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_internal_failure.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using platform::Held;

namespace {

const char *LastComponent(const char *path)
{
    const char *const slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

} // namespace

const char *Exchange::restoredName() const
{
    return LastComponent(restoredPath_);
}

const char *Exchange::oldPath() const
{
    return strcmp(old_, aside_.placeholder()) == 0 ? aside_.path() : copy_.path();
}

bool Exchange::changesName() const
{
    return strcmp(restoredName(), document_.name()) != 0;
}

bool Exchange::Plan(PlannedExchange *plan) const
{
    TQFileStatus folder;
    if (platform::GetStatusOfFd(document_.folder.get(), &folder) != 0) return false;
    plan->folder = ItemMark::Of(folder);
    plan->document = ItemMark::Of(document_.itself);
    plan->copy = ItemMark::Of(staged_.status);
    plan->placeholder = ItemMark::Of(copy_.status());
    const char *const aside = aside_.placeholder()[0] != '\0' ? aside_.path() : "";
    if (aside[0] != '\0') {
        plan->copy = ItemMark::Of(copy_.status());
        plan->placeholder = ItemMark::Of(aside_.status());
    }
    (void)plan->waiting.Format("%s", copy_.path());
    (void)plan->aside.Format("%s", aside);
    (void)plan->restored.Format("%s", restoredPath_);
    return true;
}

bool Exchange::Note(TQError **error)
{
    PlannedExchange plan;
    if (!Plan(&plan)) return Failure(error).Errno("Failed to open the folder of \"%s\"", document_.path);
    return staging_.NoteExchange(plan, error);
}

// Its caller is told that the restore has failed: a repair is not to finish it. What is not known as the copy is left to
// a person, but for the document whose path is empty.
void Exchange::NoteFailure()
{
    PlannedExchange plan;
    if (!Plan(&plan)) return;
    plan.copy = plan.placeholder = {};
    (void)staging_.NoteExchange(plan, nullptr);
}

// What is half a copy can be told only by the item that is filled with it.
bool Exchange::Bring(TQError **error)
{
    bool isAcross = false;
    return copy_.Bring(staged_, &isAcross, error) &&
           (!isAcross || (Note(error) && copy_.CopyAcross(staged_, restoredPath_, error)));
}

bool Exchange::Do(TQError **error)
{
    const bool done = changesName() ? ByNewName(error) : Swap(error);
    return done && RequireUnchanged(error);
}

bool Exchange::Swap(TQError **error)
{
    const int result = platform::ExchangeAt(document_.folder.get(), document_.name(), copy_.name());
    const Held atHome = result == 0 ? Held::Yes : HeldAtHome();
    if (atHome == Held::Yes) {
        isSwapped_ = true;
        (void)strcpy(old_, copy_.name());
        copy_.MovedTo(document_.name());
        return true;
    }
    if (platform::IsRenameFlagUnknown(errno)) return ByTwoRenames(error);
    // Whichever of the two is the document now, neither it nor what tells them apart is given up.
    if (atHome == Held::Unknown) {
        isBackupNeeded_ = true;
        staging_.Keep();
    }
    return Failure(error).Errno("Failed to rename old file to temp path (\"%s\" -> \"%s\")", document_.path,
                                copy_.path());
}

// Where nothing tells what was done, neither the backup nor the note is given up, and the document is looked for at both
// names.
bool Exchange::Rename(const char *from, const char *to, const ItemId &id, bool mayReplace)
{
    const Held moved = document_.Rename(from, to, id, mayReplace);
    const ErrnoKeeper keeper;
    const bool isDocument = id == ItemId::Of(document_.itself);
    if (moved != Held::No && isDocument) (void)strcpy(old_, to);
    if (moved == Held::Unknown) {
        isBackupNeeded_ = true;
        staging_.Keep();
    }
    return moved == Held::Yes;
}

// Some volumes lose the answer of what they did.
Held Exchange::HeldAtHome() const
{
    const ErrnoKeeper keeper;
    return document_.Holds(document_.name(), copy_.id());
}

// The path is empty for a moment: a kill in it leaves the document under a name that was noted before.
bool Exchange::ByTwoRenames(TQError **error)
{
    const bool isDirectory = S_ISDIR(document_.itself.mode);
    if (!aside_.Choose(isDirectory, error) || !Note(error) || !aside_.Make(isDirectory, error)) return false;
    if (!Rename(document_.name(), aside_.name(), ItemId::Of(document_.itself), /*mayReplace=*/true))
        return Failure(error).Errno("Failed to rename old file to temp path (\"%s\" -> \"%s\")", document_.path,
                                    aside_.path());
    aside_.Release();
    if (!Rename(copy_.name(), document_.name(), copy_.id()))
        return Failure(error).Errno("Failed to rename file from staging (\"%s\" -> \"%s\")", staged_.path,
                                    restoredPath_);
    copy_.MovedTo(document_.name());
    return true;
}

// The copy gets its new name first, so that at no moment there is neither.
bool Exchange::ByNewName(TQError **error)
{
    if (!Rename(copy_.name(), restoredName(), copy_.id()))
        return Failure(error).Errno("Failed to rename file from staging (\"%s\" -> \"%s\")", staged_.path,
                                    restoredPath_);
    copy_.MovedTo(restoredName());
    return Rename(document_.name(), copy_.placeholder(), ItemId::Of(document_.itself)) ||
           Failure(error).Errno("Failed to rename old file to temp path (\"%s\" -> \"%s\")", document_.path,
                                copy_.path());
}

// Another program may have saved the document since it was looked at; what it saved is nobody's to give up.
bool Exchange::RequireUnchanged(TQError **error)
{
    bool isUnchanged = false;
    if (document_.IsUnchangedAt(old_, &isUnchanged) != 0) return Failure(error).Errno("stat(\"%s\") failed", oldPath());
    if (isUnchanged) return true;
    isBackupNeeded_ = true;
    return Failure(error).Status(kTQStatusFailed, "\"%s\" was changed while it was being restored", document_.path);
}

// Looked at once more: the flush takes its time, and who has the document open may have written to it.
bool Exchange::RemoveOld(TQError **error)
{
    if (!RequireUnchanged(error)) return false;
    bool begun = false;
    TreeRemoval how;
    how.expected = &document_.itself;
    how.begun = &begun;
    const bool removed = _RemoveTreeAt({document_.folder.get(), old_, oldPath()}, how, error);
    // With a part of the old state gone, the new one is all that is whole; a repair takes the rest away.
    if (!removed && begun) staging_.Keep();
    // The note goes next, and on another volume that may be on disk first.
    if (removed && copy_.isAcross() && !copy_.FlushFolder(nullptr)) staging_.Keep();
    if (removed || begun) {
        copy_.Release();
        old_[0] = '\0';
    }
    isBackupNeeded_ = isBackupNeeded_ || begun;
    return removed;
}

// If somebody saves in between, what was saved stays at the path, or comes back to it. What can't be told is left as it is.
bool Exchange::SwapBack()
{
    const int folder = document_.folder.get();
    const char *const home = document_.name();
    if (document_.Holds(home, copy_.id()) != Held::Yes) return false;
    const int result = platform::ExchangeAt(folder, home, old_);
    const Held found = document_.Holds(old_, copy_.id());
    if (found == Held::Yes || (result == 0 && found == Held::Unknown)) {
        copy_.MovedTo(old_);
        return true;
    }
    if (result == 0) (void)platform::ExchangeAt(folder, home, old_);
    return false;
}

// The document's path is freed by a rename, and only of what was put there; what can't go home leaves the path to it.
bool Exchange::RenameBack()
{
    const ItemId document = ItemId::Of(document_.itself);
    const char *const home = document_.name(), *const waiting = copy_.placeholder();
    if (document_.Holds(home, document) == Held::Yes) return true;
    const bool isFreed = !changesName() && document_.Holds(home, copy_.id()) == Held::Yes &&
                         document_.Rename(home, waiting, copy_.id()) == Held::Yes;
    if (document_.Rename(old_, home, document) == Held::Yes) {
        if (isFreed) copy_.MovedTo(waiting);
        return true;
    }
    if (isFreed) (void)document_.Rename(waiting, home, copy_.id());
    return false;
}

// Once. What is given up for the document, the backup and the note, goes only when its way back is on disk.
void Exchange::TakeBack()
{
    if (isTakenBack_) return;
    isTakenBack_ = true;
    if (old_[0] != '\0') BringHome();
    if (copy_.IsWorkedOn()) LeaveCopy();
}

// What somebody has written to it while it had the document's name is nowhere else.
void Exchange::LeaveCopy()
{
    const ErrnoKeeper keeper;
    Failure(nullptr).Status(kTQStatusFailed,
                            "\"%s\" was changed while it was being restored; what was saved lies beside it as \"%s\"",
                            document_.path, copy_.name());
    copy_.Release();
    staging_.Keep();
    NoteFailure();
}

void Exchange::BringHome()
{
    const ErrnoKeeper keeper;
    copy_.TakeBlockingFlags();
    if (isSwapped_ ? SwapBack() : RenameBack()) {
        old_[0] = '\0';
        if (copy_.FlushFolder(nullptr)) return;
        isBackupNeeded_ = true;
        staging_.Keep();
        return;
    }
    const int why = errno;
    // It may be all that is at the document's path; beside the document it is of no use.
    if (strcmp(copy_.name(), copy_.placeholder()) != 0) copy_.Release();
    staging_.Keep(); // its note says what is where
    NoteFailure();
    errno = why;
    Failure(nullptr).Errno("Failed to give the document back to \"%s\"; it lies at \"%s\"", document_.path, oldPath());
}
