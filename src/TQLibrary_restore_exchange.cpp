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

// The caller is told that the restore has failed, so a repair must not finish it. If the note does not name the copy, a
// repair leaves things to a person, unless the document's path is empty.
void Exchange::NoteFailure()
{
    PlannedExchange plan;
    if (!Plan(&plan)) return;
    plan.copy = plan.placeholder = {};
    (void)staging_.NoteExchange(plan, nullptr);
}

// Half a copy can be recognised only by the item that it is being copied into, so that is noted.
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
        (void)snprintf(old_, sizeof old_, "%s", copy_.name());
        copy_.MovedTo(document_.name());
        return true;
    }
    if (platform::IsRenameFlagUnknown(errno)) return ByTwoRenames(error);
    // Nobody knows which of the two is the document now. So the backup stays, and so does the note that tells them
    // apart.
    if (atHome == Held::Unknown) {
        isBackupNeeded_ = true;
        staging_.Keep();
    }
    return Failure(error).Errno("Failed to rename old file to temp path (\"%s\" -> \"%s\")", document_.path,
                                copy_.path());
}

// If nothing tells what was done, the backup and the note stay, and the document is looked for at both names.
bool Exchange::Rename(const char *from, const char *to, const ItemId &id, bool mayReplace)
{
    const Held moved = document_.Rename(from, to, id, mayReplace);
    const ErrnoKeeper keeper;
    const bool isDocument = id == ItemId::Of(document_.itself);
    if (moved != Held::No && isDocument) (void)snprintf(old_, sizeof old_, "%s", to);
    if (moved == Held::Unknown) {
        isBackupNeeded_ = true;
        staging_.Keep();
    }
    return moved == Held::Yes;
}

// Whether the copy is at the document's path. Some volumes exchange, and lose the answer.
Held Exchange::HeldAtHome() const
{
    const ErrnoKeeper keeper;
    return document_.Holds(document_.name(), copy_.id());
}

// The path is empty for a moment. A kill in that moment leaves the document under a name that was noted before.
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

// The copy gets its new name first, so that one of the two is always there.
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

// Another program may have saved the document since it was looked at; what it saved must not be lost.
bool Exchange::RequireUnchanged(TQError **error)
{
    bool isUnchanged = false;
    if (document_.IsUnchangedAt(old_, &isUnchanged) != 0) return Failure(error).Errno("stat(\"%s\") failed", oldPath());
    if (isUnchanged) return true;
    isBackupNeeded_ = true;
    return Failure(error).Status(kTQStatusFailed, "\"%s\" was changed while it was being restored", document_.path);
}

// The document is looked at once more: the flush takes time, and a program that has the document open may have written
// to it.
bool Exchange::RemoveOld(TQError **error)
{
    if (!RequireUnchanged(error)) return false;
    bool begun = false;
    TreeRemoval how;
    how.expected = &document_.itself;
    how.begun = &begun;
    const bool removed = _RemoveTreeAt({document_.folder.get(), old_, oldPath()}, how, error);
    // Once a part of the old state has gone, only the new one is whole. A repair removes the rest.
    if (!removed && begun) staging_.Keep();
    // The note is removed next. If it is on another volume, its removal may reach the disk first.
    if (removed && copy_.isAcross() && !copy_.FlushFolder(nullptr)) staging_.Keep();
    if (removed || begun) {
        copy_.Release();
        old_[0] = '\0';
    }
    isBackupNeeded_ = isBackupNeeded_ || begun;
    return removed;
}

// If somebody saves meanwhile, what was saved stays at the path, or comes back to it. If nothing tells what was done,
// all is left as it is.
bool Exchange::SwapBack()
{
    const int folder = document_.folder.get();
    const char *const home = document_.name();
    const Held held = document_.Holds(home, copy_.id());
    if (held == Held::No) errno = ESTALE;
    if (held != Held::Yes) return false;
    const int result = platform::ExchangeAt(folder, home, old_);
    const Held found = document_.Holds(old_, copy_.id());
    if (found == Held::Yes || (result == 0 && found == Held::Unknown)) {
        copy_.MovedTo(old_);
        return true;
    }
    if (result == 0) (void)platform::ExchangeAt(folder, home, old_);
    return false;
}

// Frees the document's path by a rename, but only if it holds the copy that was put there. If the document can't go
// back, the copy returns to the path.
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

// Done once. The backup and the note are given up only when the document's way back is on disk.
void Exchange::TakeBack()
{
    if (isTakenBack_) return;
    isTakenBack_ = true;
    // Noted first, so that a repair after a kill removes nothing that somebody has saved.
    const bool isWorkedOn = copy_.IsWorkedOn();
    if (isWorkedOn) NoteFailure();
    if (old_[0] != '\0') BringHome();
    if (isWorkedOn || copy_.IsWorkedOn()) LeaveCopy();
}

// What somebody has saved into it under the document's name is nowhere else.
void Exchange::LeaveCopy()
{
    if (copy_.name()[0] == '\0') return;
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
    // The copy may be all that is at the document's path, and then stays. Beside the document it is of no use.
    if (strcmp(copy_.name(), copy_.placeholder()) != 0) copy_.Release();
    staging_.Keep(); // its note says what is where
    NoteFailure();
    errno = why;
    Failure(nullptr).Errno("Failed to give the document back to \"%s\"; it lies at \"%s\"", document_.path, oldPath());
}
